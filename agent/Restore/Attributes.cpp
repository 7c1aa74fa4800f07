#include "agent/Restore/Attributes.h"

#include "agent/Run/Text.h"

#include "Krt/Exception/YError.h"
#include "Krt/Log/YStream.h"

#include <sys/stat.h>

namespace Agent {

using Krt::YString;
using Refused = std::vector<YString>;

namespace {

// The two ways to an entry, under one set of names.
struct ByHandle
{
    const Krt::Util::YUnxHandle& handle;

    void SetOwner(unsigned int user, unsigned int group) const { Krt::File::SetOwner(handle, user, group); }
    void SetMode(unsigned int mode) const { Krt::File::SetMode(handle, mode); }
    void SetTimes(const timespec& access, const timespec& write) const
    {
        Krt::File::SetTimes(handle, access, write);
    }
    void AddExtendedAttribute(const YString& attribute, const void* data, unsigned int size) const
    {
        Krt::File::AddExtendedAttribute(handle, attribute, data, size, 0);
    }
};

struct ByName
{
    const Krt::File::YDirectory& parent;
    const YString& name;

    void SetOwner(unsigned int user, unsigned int group) const { parent.SetOwner(name, user, group); }
    void SetMode(unsigned int mode) const { parent.SetMode(name, mode); }
    void SetTimes(const timespec& access, const timespec& write) const
    {
        parent.SetTimes(name, access, write);
    }
    void AddExtendedAttribute(const YString& attribute, const void* data, unsigned int size) const
    {
        parent.AddExtendedAttribute(name, attribute, data, size, 0);
    }
};

// Whether the step was done; a refusal is told.
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

// Without the bits that would lend the rights of an owner other than the record's.
unsigned int ModeFor(unsigned int mode, bool isUserRight, bool isGroupRight)
{
    return mode & ~static_cast<unsigned int>((isUserRight ? 0 : S_ISUID) | (isGroupRight ? 0 : S_ISGID));
}

// Gives the owner and returns the mode that may be set then.
template <class Target>
unsigned int ApplyOwner(const Attributes& attributes, const Target& target, Refused& refused)
{
    const bool hasUser = attributes.user != Krt::File::KeepOwner;
    const bool hasGroup = attributes.group != Krt::File::KeepOwner;
    if (!hasUser && !hasGroup)
        return ModeFor(attributes.mode, false, false);
    Krt::YStream which{YString()};
    which << attributes.user << ":" << attributes.group;
    if (Try(refused, "owner ", which, [&] { target.SetOwner(attributes.user, attributes.group); }))
        return ModeFor(attributes.mode, hasUser, hasGroup);
    // The group alone is often the user's to give.
    try {
        target.SetOwner(Krt::File::KeepOwner, attributes.group);
        return ModeFor(attributes.mode, false, hasGroup);
    } catch (const Krt::Exception::YError&) {
        return ModeFor(attributes.mode, false, false); // told with the owner
    }
}

bool IsAccessList(const YString& attribute)
{
    return attribute.Bytes().starts_with("system.posix_acl_");
}

// Access lists come last: one may take the owner's right to write, which the kernel requires for attributes
// of the namespace "user".
template <class Target>
void ApplyExtended(const Attributes& attributes, const Target& target, Refused& refused)
{
    for (const bool isForAccessLists : {false, true}) {
        for (const auto& [name, value] : attributes.extended) {
            if (IsAccessList(name) != isForAccessLists)
                continue;
            const void* const data = value.Size() != 0 ? value.template Cast<unsigned char>() : nullptr;
            Try(refused, "attribute ", name, [&, &attribute = name, &bytes = value] {
                target.AddExtendedAttribute(attribute, data, static_cast<unsigned int>(bytes.Size()));
            });
        }
    }
}

template <class Target>
void ApplyTo(const Attributes& attributes, const Target& target, bool hasMode, Refused& refused)
{
    const unsigned int mode = ApplyOwner(attributes, target, refused);
    ApplyExtended(attributes, target, refused);
    if (hasMode) {
        Try(refused, "mode", YString(), [&] { target.SetMode(mode); });
        if (mode != attributes.mode)
            refused.emplace_back("set-user-id or set-group-id bit not restored, since the owner is another");
    }
    Try(refused, "times", YString(), [&] { target.SetTimes(attributes.access, attributes.write); });
}

} // namespace

void Apply(const Attributes& attributes, const Krt::Util::YUnxHandle& handle, Refused& refused)
{
    // The list that a directory hands down would turn the group's bits into rights of whoever stands in it.
    Try(refused, "mode without inherited rights", YString(), [&] { Krt::File::RemoveAccessLists(handle); });
    ApplyTo(attributes, ByHandle{handle}, true, refused);
}

void Apply(const Attributes& attributes, const Krt::File::YDirectory& parent, const YString& name,
           bool isLink, Refused& refused)
{
    ApplyTo(attributes, ByName{parent, name}, !isLink, refused);
}

} // namespace Agent
