// The locations of restored entries below the target.
#pragma once

#include "Backup/File/YMetadataBase.h"

#include <vector>

namespace Agent {

/// The components of a path below the target. Empty for the target itself.
using TargetLocation = std::vector<Krt::YString>;

/// Returns the record's path with names that files of this system can have: a Windows volume becomes the name
/// of a plain directory. The path of an ODS object is unchanged. Raises InvalidArgument for an empty path.
Backup::YJobPath RestoredPath(Backup::File::YMetadataBase& metadata, unsigned long index);
/// Returns the components of RestoredPath. Raises InvalidArgument for an empty path, and for a component that
/// could lead out of the target.
TargetLocation TargetLocationOf(Backup::File::YMetadataBase& metadata, unsigned long index);
/// Returns the location as users see and name it: "/a/b", and "/" for the target.
Krt::File::YPath PathOf(const TargetLocation& location);
/// Raises InvalidArgument for a record without any path. Only a Windows record can have none; others have at
/// least an empty path.
void CheckHasPath(const Backup::File::YMetadataBase& metadata);

} // namespace Agent
