// The attributes of a restored entry, set in the order that loses none: owner, extended attributes with the
// access lists last, mode, times. A change of owner clears set-user-id bits and capabilities, so they follow
// it; the bits are left out where the owner could not be set.
#pragma once

#include "Krt/File/YDirectory.h"

#include <ctime>
#include <vector>

namespace Agent {

struct Attributes
{
    unsigned int mode = 0;                    ///< permission bits, with set-user, set-group and sticky
    unsigned int user = Krt::File::KeepOwner; ///< as group: KeepOwner leaves whoever restores
    unsigned int group = Krt::File::KeepOwner;
    timespec access{}; ///< as write: with a tv_nsec of UTIME_NOW the time of the restore stands in
    timespec write{};
    Krt::File::ExtendedAttributeMap extended;
};

/// Sets the attributes of the open file or directory. What the system refuses is left out and told, one
/// sentence each, in `refused`.
void Apply(const Attributes& attributes, const Krt::Util::YUnxHandle& handle,
           std::vector<Krt::YString>& refused);
/// The same for the entry of that name. A symbolic link has no mode of its own.
void Apply(const Attributes& attributes, const Krt::File::YDirectory& parent, const Krt::YString& name,
           bool isLink, std::vector<Krt::YString>& refused);

} // namespace Agent
