#pragma once

#include "Krt/String/YString.h"

#include <boost/shared_ptr.hpp>

#include <map>

namespace Krt::Profile {

/// The configuration: INI text in a file of the system, or in the file that KBAGENT_CONFIG names (ignored
/// in a privilege-raised process). Immutable; any thread.
class KRT_API YProfile
{
public:
    /// Values by section and key.
    using Sections = std::map<YString, std::map<YString, YString>>;
    /// Stores `sections`, which never change.
    explicit YProfile(Sections sections);

    /// Returns the value as text, or `defaultValue` if the key is missing.
    YString GetKeyValue(const YString& section, const YString& key, const YString& defaultValue) const;
    /// Returns the value as a T, or `defaultValue` if the key is missing. T is YString, or bool, which is
    /// read by its first character. Raises NumberConversion for a text that is not a bool.
    template <class T>
    T Get(const YString& section, const YString& key, const T& defaultValue) const;

private:
    Sections m_sections;
};

/// Returns the value as text.
template <>
KRT_API YString YProfile::Get<YString>(const YString&, const YString&, const YString&) const;
/// Returns the value as a bool.
template <>
KRT_API bool YProfile::Get<bool>(const YString&, const YString&, const bool&) const;

/// Returns the path of the system's configuration. Any thread.
KRT_API YString GetSystemPath();

/// Returns the system's configuration, which is parsed again only if the file has changed. A missing file
/// is an empty profile. Raises the system's error for an unreadable file, and InvalidArgument with the line
/// for a damaged one. Raises InvalidArgument also for a FIFO and for a file above 16 MiB. Any thread.
KRT_API boost::shared_ptr<YProfile> OpenSystem();

} // namespace Krt::Profile
