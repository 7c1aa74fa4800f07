// KnownKeys: finds the keys of a record that no kind of record has, at any depth, so that what a conversion
// leaves out is reported; and the key whose value fails one, which the library's errors don't name.
#pragma once

#include "Krt/JSON/YObject.h"

#include <set>
#include <string>

namespace Agent {

class Report;

class KnownKeys
{
public:
    /// Warns of each unknown key once, however often it comes. `line` is that of the record. Names
    /// are kept up to a limit, after which none is reported, so that no input fills the memory.
    void Check(const Krt::JSON::YObject& record, unsigned long long line, Report& report);
    /// The first known key whose value does not have its type; empty if there is none.
    static std::string FindMisfit(const Krt::JSON::YObject& record);

private:
    std::set<std::string> m_reported;
    std::size_t m_bytes = 0; // of m_reported
    bool m_isFull = false;
};

} // namespace Agent
