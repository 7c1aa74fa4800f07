#include "agent/Restore/Attributes.h"

#include "agent/Run/Text.h"

#include "Krt/Environment/Process.h"
#include "Krt/Exception/YError.h"
#include "Krt/File/Unix/Status.h"
#include "Krt/File/YEntry.h"
#include "Krt/Log/YStream.h"

#include <algorithm>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

using Krt::YString;
using Krt::File::YEntry;
using Refused = std::vector<YString>;

namespace {

// Returns true if the step succeeded; otherwise adds the reason to `refused`.
template <class Step>
bool Try(Refused& refused, const char* what, const YString& which, Step step)
{
    try {
        step();
        return true;
    } catch (const Krt::Exception::YError& error) {
        refused.push_back(YString(what) + which + YString(" not restored: ") + ReasonOf(error));
        return false;
    }
}

// Removes the bits that would lend the rights of an owner other than that of the record.
unsigned int ModeFor(unsigned int mode, bool isUserRight, bool isGroupRight)
{
    return mode & ~static_cast<unsigned int>((isUserRight ? 0 : S_ISUID) | (isGroupRight ? 0 : S_ISGID));
}

// Sets the owner and returns the mode that may be set then.
unsigned int ApplyOwner(const Attributes& attributes, const YEntry& target, Refused& refused)
{
    const bool hasUser = attributes.user != Krt::File::KeepOwner;
    const bool hasGroup = attributes.group != Krt::File::KeepOwner;
    if (!hasUser && !hasGroup)
        return ModeFor(attributes.mode, false, false);
    Krt::YStream which{YString()};
    which << attributes.user << ":" << attributes.group;
    if (Try(refused, "owner ", which, [&] { target.SetOwner(attributes.user, attributes.group); }))
        return ModeFor(attributes.mode, hasUser, hasGroup);
    // An ordinary user can often set the group alone.
    try {
        target.SetOwner(Krt::File::KeepOwner, attributes.group);
        return ModeFor(attributes.mode, false, hasGroup);
    } catch (const Krt::Exception::YError&) {
        return ModeFor(attributes.mode, false, false); // reported with the owner
    }
}

bool IsAccessList(const YString& attribute)
{
    return attribute.Bytes().starts_with("system.posix_acl_");
}

// Access lists are set last: they may remove the owner's right to write, which the kernel requires for
// attributes of the namespace "user".
void ApplyExtended(const Attributes& attributes, const YEntry& target, Refused& refused)
{
    for (const bool isForAccessLists : {false, true}) {
        for (const auto& [name, value] : attributes.extended) {
            if (IsAccessList(name) != isForAccessLists)
                continue;
            const void* const data = value.Size() != 0 ? value.Cast<unsigned char>() : nullptr;
            Try(refused, "attribute ", name.IsEmpty() ? YString("without a name") : name,
                [&, &attribute = name, &bytes = value] {
                    target.AddExtendedAttribute(attribute, data, static_cast<unsigned int>(bytes.Size()), 0);
                });
        }
    }
}

void ApplyTo(const Attributes& attributes, const YEntry& target, bool hasMode, Refused& refused)
{
    const unsigned int mode = ApplyOwner(attributes, target, refused);
    ApplyExtended(attributes, target, refused);
    Try(refused, "times", YString(), [&] { target.SetTimes(attributes.access, attributes.write); });
    if (!hasMode)
        return;
    Try(refused, "mode", YString(), [&] { target.SetMode(mode); });
    if (mode != attributes.mode)
        refused.emplace_back("set-user-id or set-group-id bit not restored, since the owner is another");
}

// The system gives these to every entry.
bool IsOfSystem(const YString& attribute)
{
    return attribute == YString("security.selinux") ||
           (attribute.Bytes().starts_with("system.") && !IsAccessList(attribute));
}

bool IsSame(const Krt::File::ExtendedAttributeMap& wanted, Krt::File::ExtendedAttributeMap present)
{
    std::erase_if(present, [&](const auto& attribute) {
        return IsOfSystem(attribute.first) && !wanted.contains(attribute.first);
    });
    const auto bytesOf = [](const auto& value) {
        return value.Size() == 0 ? std::string_view()
                                 : std::string_view(value.template Cast<char>(), value.Size());
    };
    return std::equal(wanted.begin(), wanted.end(), present.begin(), present.end(),
                      [&](const auto& a, const auto& b) {
                          return a.first == b.first && bytesOf(a.second) == bytesOf(b.second);
                      });
}

bool HasTime(const timespec& wanted, const timespec& present)
{
    return wanted.tv_nsec == UTIME_NOW || Agent::IsSame(wanted, present);
}

bool IsOwnGroup(gid_t group)
{
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    return group == getegid() || std::find(groups.begin(), groups.end(), group) != groups.end();
}

} // namespace

bool LeaveOutForeignOwner(Attributes& attributes)
{
    if (Krt::Environment::IsRoot())
        return false;
    const bool isOtherUser = attributes.user != Krt::File::KeepOwner && attributes.user != geteuid();
    const bool isOtherGroup = attributes.group != Krt::File::KeepOwner && !IsOwnGroup(attributes.group);
    if (isOtherUser)
        attributes.user = Krt::File::KeepOwner;
    if (isOtherGroup)
        attributes.group = Krt::File::KeepOwner;
    attributes.mode = ModeFor(attributes.mode, !isOtherUser, !isOtherGroup);
    return isOtherUser || isOtherGroup;
}

bool HasAttributes(const YEntry& entry, const struct stat& status, const Attributes& attributes,
                   bool comparesAccess)
{
    const auto isOwner = [](unsigned int wanted, unsigned int present) {
        return wanted == Krt::File::KeepOwner || wanted == present;
    };
    const bool hasMode = S_ISLNK(status.st_mode) || (status.st_mode & 07777) == attributes.mode;
    try {
        return hasMode && isOwner(attributes.user, status.st_uid) &&
               isOwner(attributes.group, status.st_gid) &&
               HasTime(attributes.write, Krt::File::WriteTime(status)) &&
               (!comparesAccess || HasTime(attributes.access, Krt::File::AccessTime(status))) &&
               IsSame(attributes.extended, entry.GetExtendedAttributeMap());
    } catch (const Krt::Exception::YError&) {
        return false; // they can't be read
    }
}

bool HasStorableAttributes(const Krt::File::YDirectory& parent, const YString& name,
                           const struct stat& status, const Attributes& attributes, bool maySetTimes)
{
    const YEntry entry(parent, name);
    if (HasAttributes(entry, status, attributes, false))
        return true;
    Attributes present = attributes;
    present.write = Krt::File::WriteTime(status);
    if (!maySetTimes || IsSame(attributes.write, present.write) ||
        !HasAttributes(entry, status, present, false))
        return false;
    try {
        entry.SetTimes(attributes.access, attributes.write);
        return IsSame(Krt::File::WriteTime(parent.Stat(name)), present.write);
    } catch (const Krt::Exception::YError&) {
        return false; // reported when all attributes are set
    }
}

void Apply(const Attributes& attributes, const Krt::Util::YUnxHandle& handle, Refused& refused)
{
    // With an access list inherited from the directory, the group's bits would become rights of its users.
    Try(refused, "mode without inherited rights", YString(), [&] { Krt::File::RemoveAccessLists(handle); });
    // Without the owner's right to write, which a kept file may lack, the kernel refuses to set attributes of
    // the namespace "user".
    if (!attributes.extended.empty())
        Try(refused, "mode", YString(), [&] {
            const mode_t mode = Krt::File::Stat(handle).st_mode & 07777;
            if ((mode & S_IWUSR) == 0)
                YEntry(handle).SetMode(mode | S_IWUSR);
        });
    ApplyTo(attributes, YEntry(handle), true, refused);
}

void Apply(const Attributes& attributes, const Krt::File::YDirectory& parent, const YString& name,
           bool isLink, Refused& refused)
{
    ApplyTo(attributes, YEntry(parent, name), !isLink, refused);
}

} // namespace Agent
