#include "agent/Restore/VolumeNames.h"

namespace Agent {

using Backup::YJobPath;
using Krt::YString;

namespace {

// \\?\C: is the volume C:.
std::string_view WithoutDevicePrefix(std::string_view name)
{
    constexpr std::string_view Prefix = "\\\\?\\";
    return name.starts_with(Prefix) ? name.substr(Prefix.size()) : name;
}

} // namespace

YString VolumeNames::FindOther(const YJobPath& path, const TargetLocation& location)
{
    // The index of the component that a restore renames.
    unsigned long volume = path.Find(0, YJobPath::ClassFileSystemContainer);
    if (volume == path.GetComponentCount())
        volume = 0;
    const YString& name = path.GetComponent(volume).m_name;
    TargetLocation directory(location.begin(), location.begin() + static_cast<std::ptrdiff_t>(volume) + 1);
    const YString& first = m_names.try_emplace(std::move(directory), name).first->second;
    return WithoutDevicePrefix(first.Bytes()) == WithoutDevicePrefix(name.Bytes()) ? YString() : first;
}

} // namespace Agent
