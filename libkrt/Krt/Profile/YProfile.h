// The configuration store: INI text in a file of the system, or in the one that KBAGENT_CONFIG names (not in
// a privilege-raised process). Opened afresh by each reader; the file is parsed again only when it has
// changed.
#pragma once

#include "Krt/String/YString.h"

#include <boost/shared_ptr.hpp>

#include <map>

namespace Krt::Profile {

class KRT_API YProfile
{
public:
    /// Values by section and key.
    using Sections = std::map<YString, std::map<YString, YString>>;
    /// Holds these values for good.
    explicit YProfile(Sections sections);

    /// The value as text, or the default.
    YString GetKeyValue(const YString& section, const YString& key, const YString& defaultValue) const;
    /// For YString, and for bool by its leading letter; a text that fits no bool raises NumberConversion.
    template <class T>
    T Get(const YString& section, const YString& key, const T& defaultValue) const;

private:
    Sections m_sections;
};

template <>
KRT_API YString YProfile::Get<YString>(const YString&, const YString&, const YString&) const;
template <>
KRT_API bool YProfile::Get<bool>(const YString&, const YString&, const bool&) const;

/// Where the system's configuration is read from. Any thread.
KRT_API YString GetSystemPath();

/// The system's configuration; a missing file is an empty profile. An unreadable file raises the system's
/// error, a damaged one InvalidArgument with the line. Immutable and shared; any thread.
KRT_API boost::shared_ptr<YProfile> OpenSystem();

} // namespace Krt::Profile
