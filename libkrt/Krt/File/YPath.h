// YPath: an immutable path as text. Nothing here touches the file system. Only "/" separates, yet Windows
// volume forms are recognised at the front, since such paths travel through as data. Objects are shared
// across threads by const reference: caches are filled under the object's own lock and never change
// afterwards.
#pragma once

#include "Krt/String/YString.h"
#include "Krt/Thread/SpinLock.h"

#include <atomic>
#include <list>
#include <memory>
#include <vector>

namespace Krt::File {

class KRT_API YPath : public YString
{
public:
    YPath() = default;
    /// The text without separators at its end, save that of the root.
    YPath(const YString& text);
    YPath(YString&& text);
    YPath(const char* text);
    explicit YPath(std::string_view text) : YPath(YString(text)) {}
    YPath(const YPath& other);
    YPath(YPath&& other) noexcept;
    YPath& operator=(const YPath& other);
    YPath& operator=(YPath&& other) noexcept;
    ~YPath() override;

    /// Upper-case prefixes of Windows paths with a volume in them, sorted by bytes.
    static const std::vector<YString> s_volumePrefixes;

    /// The work on plain text. `separator` counts with its first byte. This turns each "/" into it.
    static YString ConvertToOsPathSep(const YString& path, const char* separator);
    /// Without separators at the end, save that of a text of nothing else.
    static YString RemovePathSep(const YString& path, const char* separator);
    /// With one at the end, or at the front, if there is none yet.
    static YString AppendPathSep(const YString& path, const char* separator);
    static YString PrependPathSep(const YString& path, const char* separator);
    /// Without those at the front.
    static YString RemoveLeadingPathSep(const YString& path, const char* separator);
    /// The second below the first, with one separator between them and none at the end.
    static YString AppendPaths(const YString& first, const YString& second, const char* separator);
    /// What stands behind the last separator; what stands up to it; the path of one component less, where
    /// the root is its own parent.
    static YString GetFileFromPath(const YString& path, const char* separator);
    static YString RemoveFileFromPath(const YString& path, const char* separator);
    static YString GetParentFromPath(const YString& path, const char* separator);
    /// Without these bytes at the front, or as it is if it begins with others.
    static YString RemoveLeadingPath(const YString& path, const YString& leading, const char* separator);
    /// The Windows volume at the front, empty if there is none; and what stands behind it.
    static YString GetVolumeFromPath(const YString& path);
    static YString RemoveVolumeFromPath(const YString& path);
    /// The volume, if there is one, and then each piece between "/" that is neither empty nor ".".
    /// For std::list<YString> and std::vector<YString>.
    template <class Container = std::vector<YString>>
    static Container SplitRelativePath(const YString& path);

    /// The text; with `trailingSeparator`, the text ending in a separator. Lives as long as the path.
    const YString& AsUnixPath(bool trailingSeparator) const;
    /// As the operations on text, of this path and by "/".
    YPath GetVolume() const;
    YPath RemoveVolume() const;
    /// A copy; raises NoPathComponent beyond the last.
    YString GetComponent(unsigned int index) const;
    /// Splits the path at the first call; the vector lives as long as the path and never changes.
    const std::vector<YString>& PopulateComponents() const;
    /// As AppendPaths.
    YPath Append(const YString& other) const;
    YPath Append(const YPath& other) const;
    YPath operator+(const YString& other) const;
    /// As the operations on text, of this path and by "/".
    YPath GetParent() const;
    YPath RemoveFile() const;
    YPath RemoveLeading(const YPath& leading) const;
    YPath AddLeadingSep() const;
    /// Whether this path lies below the other, by components; with `orEqual` also if it is the other.
    bool IsChildOf(const YPath& parent, bool orEqual) const;

    /// Not for paths: the text never changes after construction.
    unsigned int Replace(const char*, const char*, unsigned int, unsigned int, bool) = delete;
    void Truncate(unsigned int) = delete;
    void TrimLeft(unsigned int) = delete;
    void TrimWhiteSpacesLeft() = delete;
    void TrimWhiteSpacesRight() = delete;
    unsigned int Copy(const char*, unsigned int) = delete;
    YString& operator+=(const YString&) = delete;

private:
    // Brings the text into normal form and forgets the caches. The system's separator is "/", so that none
    // has to be converted.
    void Initialize();

    mutable std::unique_ptr<YString> m_withSeparator;
    mutable std::vector<YString> m_components;
    // Set once the vector is filled, and never taken back; so who finds it set needs no lock.
    mutable std::atomic<bool> m_isSplit{false};
    mutable Thread::SpinLock m_lock;
};

template <>
KRT_API std::list<YString> YPath::SplitRelativePath<std::list<YString>>(const YString& path);
template <>
KRT_API std::vector<YString> YPath::SplitRelativePath<std::vector<YString>>(const YString& path);

} // namespace Krt::File
