// What a restored entry gets beside its contents, in the order that loses nothing: owner, extended
// attributes, mode, times. A change of owner clears set-user-id bits and capabilities, so those come behind
// it, and the bits stay away where the owner could not be set.
#pragma once

#include "Backup/File/YUnixFileMetadata.h"

#include "Krt/File/YDirectory.h"

#include <ctime>
#include <vector>

namespace Agent {

struct Attributes
{
    unsigned int mode = 0; ///< permission bits, with set-user, set-group and sticky
    unsigned int user = 0;
    unsigned int group = 0;
    timespec access{};
    timespec write{};
    Krt::File::ExtendedAttributeMap extended;
};

/// An access time of 0 means that the record has none: the time of the restore stands in.
Attributes AttributesOf(const Backup::File::YUnixFileMetadata& metadata);

/// Sets the attributes of the open file or directory. What the system refuses is left out and told, one
/// sentence each, in `refused`.
void Apply(const Attributes& attributes, const Krt::Util::YUnxHandle& handle,
           std::vector<Krt::YString>& refused);
/// The same for the entry of that name. A symbolic link has no mode of its own.
void Apply(const Attributes& attributes, const Krt::File::YDirectory& parent, const Krt::YString& name,
           bool isLink, std::vector<Krt::YString>& refused);

} // namespace Agent
