#include "agent/Backup/Unix/Owners.h"

#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <vector>

namespace Agent {

namespace {

// Calls a function of the system's databases with a larger buffer until its result fits.
template <class Entry, class Call>
std::string LookUp(Call call, char* Entry::*name)
{
    constexpr std::size_t MostBytes = 1 << 24; // a group may have many members
    Entry entry;
    Entry* found = nullptr;
    for (std::vector<char> buffer(1 << 12);; buffer.resize(4 * buffer.size())) {
        const int error = call(&entry, buffer.data(), buffer.size(), &found);
        if (error == ERANGE && buffer.size() < MostBytes)
            continue;
        return error == 0 && found != nullptr ? entry.*name : "";
    }
}

} // namespace

const std::string& Owners::UserOf(std::uint32_t id)
{
    const auto [found, isNew] = m_users.try_emplace(id);
    if (isNew)
        found->second = LookUp<passwd>([id](auto... arguments) { return getpwuid_r(id, arguments...); },
                                       &passwd::pw_name);
    return found->second;
}

const std::string& Owners::GroupOf(std::uint32_t id)
{
    const auto [found, isNew] = m_groups.try_emplace(id);
    if (isNew)
        found->second =
            LookUp<group>([id](auto... arguments) { return getgrgid_r(id, arguments...); }, &group::gr_name);
    return found->second;
}

} // namespace Agent
