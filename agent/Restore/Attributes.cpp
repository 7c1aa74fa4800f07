#include "agent/Restore/Attributes.h"

#include "agent/Cli/Text.h"

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

// Gives the owner and returns the mode that may be set then.
template <class Target>
unsigned int ApplyOwner(const Attributes& attributes, const Target& target, Refused& refused)
{
    if (attributes.user == Krt::File::KeepOwner && attributes.group == Krt::File::KeepOwner)
        return attributes.mode;
    Krt::YStream which{YString()};
    which << attributes.user << ":" << attributes.group;
    if (Try(refused, "owner ", which, [&] { target.SetOwner(attributes.user, attributes.group); }))
        return attributes.mode;
    // The group alone is often the user's to give.
    try {
        target.SetOwner(Krt::File::KeepOwner, attributes.group);
        return attributes.mode & ~static_cast<unsigned int>(S_ISUID);
    } catch (const Krt::Exception::YError&) {
        return attributes.mode & ~static_cast<unsigned int>(S_ISUID | S_ISGID); // told with the owner
    }
}

template <class Target>
void ApplyTo(const Attributes& attributes, const Target& target, bool hasMode, Refused& refused)
{
    const unsigned int mode = ApplyOwner(attributes, target, refused);
    for (const auto& [name, value] : attributes.extended) {
        const void* const data = value.Size() != 0 ? value.template Cast<unsigned char>() : nullptr;
        Try(refused, "attribute ", name, [&, &attribute = name, &bytes = value] {
            target.AddExtendedAttribute(attribute, data, static_cast<unsigned int>(bytes.Size()));
        });
    }
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
    ApplyTo(attributes, ByHandle{handle}, true, refused);
}

void Apply(const Attributes& attributes, const Krt::File::YDirectory& parent, const YString& name,
           bool isLink, Refused& refused)
{
    ApplyTo(attributes, ByName{parent, name}, !isLink, refused);
}

} // namespace Agent
