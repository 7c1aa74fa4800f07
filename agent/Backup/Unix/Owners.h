// Owners: the names of users and groups, as the system's databases have them. A name is looked up once.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace Agent {

/// One thread at a time.
class Owners
{
public:
    /// The user's name; empty without one.
    const std::string& UserOf(std::uint32_t id);
    /// The group's name; empty without one.
    const std::string& GroupOf(std::uint32_t id);

private:
    std::unordered_map<std::uint32_t, std::string> m_users;
    std::unordered_map<std::uint32_t, std::string> m_groups;
};

} // namespace Agent
