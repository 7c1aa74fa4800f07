// YFileDescriptor: one selection written down by itself, outside any tree: a directory, which names below it
// are meant, two flags, and the volume that the directory lies on. Its stored form is the XML element
// "Descriptor". A plain value without a lock. Beside it stand two helpers for path texts.
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

class BACKUP_API YFileDescriptor
{
public:
    YFileDescriptor() = default;
    /// As Initialize.
    YFileDescriptor(const Krt::File::YPath& path, bool report);
    YFileDescriptor(const Krt::File::YPath& path, const Krt::Match::Descriptor& descriptor, bool isRecursive,
                    bool report);
    /// As LoadFromXmlNode.
    explicit YFileDescriptor(const TiXmlElement* element);

    /// Every name below the directory, not recursive.
    void Initialize(const Krt::File::YPath& path, bool report);
    /// Leaves the volume's GUID and mount path as they are. The pattern "*.*" becomes "*", whatever the kind.
    void Initialize(const Krt::File::YPath& path, const Krt::Match::Descriptor& descriptor, bool isRecursive,
                    bool report);

    /// Reads an element of any name. A missing "path", "fileSpec" or "mountPath" is an empty text, a missing
    /// "volumeGuid" leaves the field as it was. The descriptor becomes a Glob without regard to case,
    /// whatever was saved; its "*.*" stays only where both mount path and GUID are there. Raises
    /// NumberConversion on a missing or damaged "isRecursive" or "report", with the fields before it already
    /// set.
    void LoadFromXmlNode(const TiXmlElement* element);
    /// Adds an element "Descriptor" behind the last child of `parent`. The kind of the descriptor is not part
    /// of it.
    void SaveToXmlNode(TiXmlElement* parent) const;

    /// Whether the path lies below the directory, at any depth, and its last name is one that the descriptor
    /// does not match: false thus means matched, or outside.
    bool CheckMatch(const Krt::File::YPath& path) const;

    /// By path, descriptor and recursion; two descriptors of kind Any are equal.
    bool operator==(const YFileDescriptor& other) const;
    bool operator!=(const YFileDescriptor& other) const { return !(*this == other); }

    /// The directory with the pattern as its last component. Raises InvalidState without a directory.
    operator Krt::File::YPath() const;
    /// The last component of the directory. Raises InvalidState without a directory.
    Krt::File::YPath FileName() const;

    /// The fields. References live as long as the descriptor.
    const Krt::File::YPath& GetPath() const { return m_path; }
    const Krt::Match::Descriptor& GetDescriptor() const { return m_descriptor; }
    bool IsRecursive() const { return m_isRecursive; }
    bool GetReport() const { return m_report; }
    const YString& GetVolumeGuid() const { return m_volumeGuid; }
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

/// The components from the top, of a relative path or one with a volume. Never ends, and takes all memory,
/// for a path that begins with "/", since the parent of "/" is "/" again.
BACKUP_API std::list<YString> SplitAbsolutePath(const Krt::File::YPath& path);

/// A path written in the Windows manner as one of this system: without "\\?\", with "/" for each backslash,
/// and with a leading "/".
BACKUP_API Krt::File::YPath MakeNativeTestPath(YString path);

} // namespace Backup::File

/// Recursion and directory; the pattern isn't shown.
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const Backup::File::YFileDescriptor& descriptor);
