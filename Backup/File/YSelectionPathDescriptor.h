// A rule bound to the directory at which it stands: what a selection tree takes in and gives out.
#pragma once

#include "Backup/File/YSelectionDescriptor.h"

#include "Krt/File/YPath.h"

namespace Backup::File {

class BACKUP_API YSelectionPathDescriptor : public YSelectionDescriptor
{
public:
    /// Raises as the constructor of the rule.
    YSelectionPathDescriptor(const Krt::File::YPath& path, const Krt::Match::Descriptor& descriptor,
                             RecursionType recursionType, SelectionType selectionType, bool reportExclude);
    /// Takes over all of the rule, the explicit flag too, and brings the path into its canonical form.
    YSelectionPathDescriptor(const Krt::File::YPath& path, const YSelectionDescriptor& rule);

    /// The directory; the empty path and "/" both mean the root of the tree.
    const Krt::File::YPath& GetPath() const { return m_path; }
    /// A plain copy: a volume has one name here.
    Krt::File::YPath NormalizePathToPrimaryVolumeName(const Krt::File::YPath& path) const;

    /// The keys of the rule and "path".
    Krt::JSON::YObject ToJSON() const override;
    /// Takes the path as it stands in the document, without canonical case.
    void FromJSON(const Krt::JSON::YObject& json) override;

    /// By path bytes, then by rule.
    bool operator<(const YSelectionPathDescriptor& other) const;

private:
    Krt::File::YPath m_path;
};

/// The path and the fields of the rule, for logs.
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionPathDescriptor& rule);

} // namespace Backup::File
