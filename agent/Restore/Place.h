// Where the entries of a snapshot go below a target.
#pragma once

#include "Backup/File/YMetadataBase.h"

#include <vector>

namespace Agent {

/// The components of a place below the target.
using Place = std::vector<Krt::YString>;

/// The record's path with names that a file of this system may have: a Windows volume becomes a plain
/// directory's name. The path of an ODS object stays as it is. Raises InvalidArgument for an empty path.
Backup::YJobPath RestoredPath(Backup::File::YMetadataBase& metadata, unsigned long index);
/// The same as a place. Raises InvalidArgument for a component that could lead out of the target.
Place PlaceOf(Backup::File::YMetadataBase& metadata, unsigned long index);
/// The place as it is shown and named: "/a/b", and "/" for the target.
Krt::File::YPath PathOf(const Place& place);
/// Raises InvalidArgument for a record that has not even an empty path, which only a Windows one may be.
void CheckHasPath(const Backup::File::YMetadataBase& metadata);

} // namespace Agent
