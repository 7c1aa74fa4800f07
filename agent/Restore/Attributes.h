// The attributes of a restored entry, set in the order that loses none: owner, extended attributes with the
// access lists last, times, mode. A change of owner clears set-user-id bits and capabilities, so they are set
// after it. The bits are left out if the owner could not be set.
#pragma once

#include "Krt/File/YDirectory.h"
#include "Krt/File/YEntry.h"

#include <ctime>
#include <vector>

namespace Agent {

struct Attributes
{
    unsigned int mode = 0;                    ///< permission bits, with set-user, set-group and sticky
    unsigned int user = Krt::File::KeepOwner; ///< as group: KeepOwner leaves the user who restores
    unsigned int group = Krt::File::KeepOwner;
    timespec access{}; ///< as write: a tv_nsec of UTIME_NOW means the time of the restore
    timespec write{};
    Krt::File::ExtendedAttributeMap extended;
};

/// Returns true if the times are equal to the nanosecond.
inline bool IsSame(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

/// Leaves out the owner that the user who restores can't set because the user is not root, and the bits that
/// would lend rights of another owner. Returns true if it changed something.
bool LeaveOutForeignOwner(Attributes& attributes);
/// Sets the attributes of the open file or directory. For each one that the system refuses, a reason is added
/// to `refused`.
void Apply(const Attributes& attributes, const Krt::Util::YUnxHandle& handle,
           std::vector<Krt::YString>& refused);
/// Sets the attributes of the entry of that name, and adds a reason to `refused` for each one that the system
/// refuses. The mode is not set if it is a symlink.
void Apply(const Attributes& attributes, const Krt::File::YDirectory& parent, const Krt::YString& name,
           bool isLink, std::vector<Krt::YString>& refused);
/// Returns true if the entry, which has this status, already has all of the attributes and no other extended
/// ones, except those that the system itself sets. The access time counts only with `comparesAccess`, and a
/// time that is to be that of the restore never counts.
bool HasAttributes(const Krt::File::YEntry& entry, const struct stat& status, const Attributes& attributes,
                   bool comparesAccess);
/// HasAttributes without the access time, but a modification time that the file system can't store is equal
/// to the nearest one that it can. That is found out by setting the times, if `maySetTimes`.
bool HasStorableAttributes(const Krt::File::YDirectory& parent, const Krt::YString& name,
                           const struct stat& status, const Attributes& attributes, bool maySetTimes);

} // namespace Agent
