#pragma once

#include "Backup/Export.h"

#include "Krt/File/YPath.h"
#include "Krt/Match/Descriptor.h"

#include <list>

class TiXmlElement;

namespace Krt {
class YStream;
}

namespace Backup::File {

/// One selection without a tree: a directory, the pattern of the names selected below it, two flags, and
/// the volume that contains the directory. Its stored form is the XML element "Descriptor". A plain value
/// without a lock.
class BACKUP_API YFileDescriptor
{
public:
    YFileDescriptor() = default;
    /// Calls Initialize(path, report).
    YFileDescriptor(const Krt::File::YPath& path, bool report);
    /// Calls the Initialize with these arguments.
    YFileDescriptor(const Krt::File::YPath& path, const Krt::Match::Descriptor& descriptor, bool isRecursive,
                    bool report);
    /// Calls LoadFromXmlNode.
    explicit YFileDescriptor(const TiXmlElement* element);

    /// Selects every name directly inside the directory.
    void Initialize(const Krt::File::YPath& path, bool report);
    /// Sets all fields except the volume's GUID and mount path. The pattern "*.*" becomes "*", whatever the
    /// kind.
    void Initialize(const Krt::File::YPath& path, const Krt::Match::Descriptor& descriptor, bool isRecursive,
                    bool report);

    /// Reads an element of any name. A missing "path", "fileSpec" or "mountPath" is an empty text; a
    /// missing "volumeGuid" leaves the field unchanged. The pattern becomes a Glob that ignores case,
    /// whatever was saved. Its "*.*" is kept only if the element has both a mount path and a GUID. Raises
    /// NumberConversion for a missing or damaged "isRecursive" or "report"; the fields before it are set
    /// then.
    void LoadFromXmlNode(const TiXmlElement* element);
    /// Appends an element "Descriptor" to the children of `parent`. It does not contain the kind of the
    /// pattern.
    void SaveToXmlNode(TiXmlElement* parent) const;

    /// Returns true if the path is below the directory, at any depth, and the pattern does not match its
    /// last name. False means either matched or outside the directory.
    bool CheckMatch(const Krt::File::YPath& path) const;

    /// Compares path, pattern and recursion. Two patterns of kind Any are equal.
    bool operator==(const YFileDescriptor& other) const;
    /// The negation of operator==.
    bool operator!=(const YFileDescriptor& other) const { return !(*this == other); }

    /// Returns the directory with the pattern as its last component. Raises InvalidState if the directory
    /// is empty.
    operator Krt::File::YPath() const;
    /// Returns the last component of the directory. Raises InvalidState if the directory is empty.
    Krt::File::YPath FileName() const;

    /// The directory. Valid as long as this object, as are the other references.
    const Krt::File::YPath& GetPath() const { return m_path; }
    const Krt::Match::Descriptor& GetDescriptor() const { return m_descriptor; } ///< pattern of the names
    bool IsRecursive() const { return m_isRecursive; }            ///< true if it reaches all levels below
    bool GetReport() const { return m_report; }                   ///< true if the selection is reported
    const YString& GetVolumeGuid() const { return m_volumeGuid; } ///< may be empty
    /// The mount path of the volume; may be empty.
    const Krt::File::YPath& GetMountPath() const { return m_mountPath; }

private:
    Krt::File::YPath m_path;
    Krt::Match::Descriptor m_descriptor;
    bool m_isRecursive = false;
    bool m_report = false;
    Krt::File::YPath m_loadedPath; // as the last element had it; nothing asks for it
    YString m_volumeGuid;
    Krt::File::YPath m_mountPath;
};

/// Returns the components, the topmost first, of a relative path or a path with a volume. Precondition: the
/// path does not begin with "/". Otherwise the function does not return and its memory grows without bound,
/// since the parent of "/" is "/".
BACKUP_API std::list<YString> SplitAbsolutePath(const Krt::File::YPath& path);

/// Converts a Windows path to one of this system: without "\\?\", with "/" for each backslash, and with a
/// leading "/".
BACKUP_API Krt::File::YPath MakeNativeTestPath(YString path);

} // namespace Backup::File

/// Writes recursion and directory, but not the pattern.
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const Backup::File::YFileDescriptor& descriptor);
