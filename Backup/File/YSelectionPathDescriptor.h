#pragma once

#include "Backup/File/YSelectionDescriptor.h"

#include "Krt/File/YPath.h"

namespace Backup::File {

/// A rule with its directory, the form in which rules are added to a selection tree and read from it.
class BACKUP_API YSelectionPathDescriptor : public YSelectionDescriptor
{
public:
    /// Raises the errors of the rule's constructor.
    YSelectionPathDescriptor(const Krt::File::YPath& path, const Krt::Match::Descriptor& descriptor,
                             RecursionType recursionType, SelectionType selectionType, bool reportExclude);
    /// Copies the rule, including the explicit flag, and normalizes the path.
    YSelectionPathDescriptor(const Krt::File::YPath& path, const YSelectionDescriptor& rule);

    /// The directory. The empty path and "/" both denote the root of the tree.
    const Krt::File::YPath& GetPath() const { return m_path; }
    /// Returns the path unchanged: a volume has one name on this platform.
    Krt::File::YPath NormalizePathToPrimaryVolumeName(const Krt::File::YPath& path) const;

    /// Returns the keys of the rule and "path".
    Krt::JSON::YObject ToJSON() const override;
    /// Reads the path unchanged, without canonical case.
    void FromJSON(const Krt::JSON::YObject& json) override;

    /// Orders by the bytes of the path, then by rule.
    bool operator<(const YSelectionPathDescriptor& other) const;

private:
    Krt::File::YPath m_path;
};

/// Writes the path and the fields of the rule, for logs.
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionPathDescriptor& rule);

} // namespace Backup::File
