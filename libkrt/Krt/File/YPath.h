#pragma once

#include "Krt/String/YString.h"
#include "Krt/Thread/SpinLock.h"

#include <atomic>
#include <list>
#include <memory>
#include <vector>

namespace Krt::File {

/// An immutable path as text. Operations do not access the file system. The only separator is "/". Windows
/// volumes at the front are recognized, since paths of other systems occur as data. Threads may share an
/// object by const reference: caches are filled under the object's own lock and never change afterwards.
class KRT_API YPath : public YString
{
public:
    YPath() = default;
    /// The text without trailing separators, except for "/" itself.
    YPath(const YString& text);
    /// Moves the text in and removes trailing separators, except for "/" itself.
    YPath(YString&& text);
    /// The text up to its NUL, without trailing separators, except for "/" itself.
    YPath(const char* text);
    /// The text without trailing separators, except for "/" itself.
    explicit YPath(std::string_view text) : YPath(YString(text)) {}
    /// Copies the text, but not the caches.
    YPath(const YPath& other);
    /// Moves the text with its caches; `other` is empty afterwards.
    YPath(YPath&& other) noexcept;
    /// Copies the text and drops the caches, with all references to them.
    YPath& operator=(const YPath& other);
    /// Moves the text with its caches; `other` is empty afterwards.
    YPath& operator=(YPath&& other) noexcept;
    ~YPath() override;

    /// Upper-case prefixes of Windows paths that begin with a volume, sorted by bytes.
    static const std::vector<YString> s_volumePrefixes;

    /// Replaces each "/" by the first byte of `separator`. The functions below also use only that byte.
    static YString ConvertToOsPathSep(const YString& path, const char* separator);
    /// Removes trailing separators, but not from a text that is a single separator.
    static YString RemovePathSep(const YString& path, const char* separator);
    /// Appends a separator if the text does not end with one.
    static YString AppendPathSep(const YString& path, const char* separator);
    /// Prepends a separator if the text does not begin with one.
    static YString PrependPathSep(const YString& path, const char* separator);
    /// Removes leading separators.
    static YString RemoveLeadingPathSep(const YString& path, const char* separator);
    /// Joins the texts with one separator between them, and removes trailing separators.
    static YString AppendPaths(const YString& first, const YString& second, const char* separator);
    /// Returns the text after the last separator.
    static YString GetFileFromPath(const YString& path, const char* separator);
    /// Returns the text before the last component, without trailing separators. A last component "." is
    /// removed together with the component before it.
    static YString RemoveFileFromPath(const YString& path, const char* separator);
    /// Returns the parent of a path. The root is its own parent.
    static YString GetParentFromPath(const YString& path, const char* separator);
    /// Removes the bytes of `leading` from the front; returns the text unchanged if it does not begin with
    /// them.
    static YString RemoveLeadingPath(const YString& path, const YString& leading, const char* separator);
    /// Returns the Windows volume at the front; empty if there is no volume.
    static YString GetVolumeFromPath(const YString& path);
    /// Removes the Windows volume at the front, with the separator after it.
    static YString RemoveVolumeFromPath(const YString& path);
    /// Returns the volume, if there is one, and then each piece between "/" that is neither empty nor ".".
    /// Container is std::list<YString> or std::vector<YString>.
    template <class Container = std::vector<YString>>
    static Container SplitRelativePath(const YString& path);

    /// The text, with a trailing separator if `trailingSeparator`. Valid as long as the path.
    const YString& AsUnixPath(bool trailingSeparator) const;
    /// The Windows volume of this path; see GetVolumeFromPath.
    YPath GetVolume() const;
    /// This path without its Windows volume; see RemoveVolumeFromPath.
    YPath RemoveVolume() const;
    /// Returns a copy of the component at `index`. Raises NoPathComponent after the last one.
    YString GetComponent(unsigned int index) const;
    /// The components of SplitRelativePath. The first call splits the path; the vector is valid as long as
    /// the path and never changes.
    const std::vector<YString>& PopulateComponents() const;
    /// Returns `other` below this path; see AppendPaths.
    YPath Append(const YString& other) const;
    /// Returns `other` below this path; see AppendPaths.
    YPath Append(const YPath& other) const;
    /// Returns `other` below this path; see AppendPaths.
    YPath operator+(const YString& other) const;
    /// The parent of this path; see GetParentFromPath.
    YPath GetParent() const;
    /// This path without its last component; see RemoveFileFromPath.
    YPath RemoveFile() const;
    /// This path without the leading bytes of `leading`; see RemoveLeadingPath.
    YPath RemoveLeading(const YPath& leading) const;
    /// This path with a leading separator; see PrependPathSep.
    YPath AddLeadingSep() const;
    /// Returns true if this path is below `parent`, compared by components; with `orEqual` also if it
    /// equals `parent`.
    bool IsChildOf(const YPath& parent, bool orEqual) const;

    // A path never changes after construction, so the operations that change a text are deleted.
    unsigned int Replace(const char*, const char*, unsigned int, unsigned int, bool) = delete;
    void Truncate(unsigned int) = delete;
    void TrimLeft(unsigned int) = delete;
    void TrimWhiteSpacesLeft() = delete;
    void TrimWhiteSpacesRight() = delete;
    unsigned int Copy(const char*, unsigned int) = delete;
    YString& operator+=(const YString&) = delete;

private:
    // Normalizes the text and drops the caches. The system's separator is "/", so no separator is converted.
    void Initialize();

    mutable std::unique_ptr<YString> m_withSeparator;
    mutable std::vector<YString> m_components;
    // Set once the vector is filled, and never reset, so a reader that finds it set needs no lock.
    mutable std::atomic<bool> m_isSplit{false};
    mutable Thread::SpinLock m_lock;
};

/// The components as a list.
template <>
KRT_API std::list<YString> YPath::SplitRelativePath<std::list<YString>>(const YString& path);
/// The components as a vector.
template <>
KRT_API std::vector<YString> YPath::SplitRelativePath<std::vector<YString>>(const YString& path);

/// Hashes the bytes of the text, so that equal paths have equal hashes. boost::hash calls it.
inline std::size_t hash_value(const YPath& path)
{
    return std::hash<std::string>()(path.Bytes());
}

} // namespace Krt::File
