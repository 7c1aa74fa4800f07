// KnownKeys: finds unknown keys of a record, at any depth, so that a conversion reports what it drops. It
// also finds the key whose value makes a record fail, which the library's errors don't name.
#pragma once

#include "Krt/JSON/YObject.h"

#include <set>
#include <string>

namespace Agent {

class Report;

class KnownKeys
{
public:
    /// Warns of each unknown key once. `line` is the line of the record. Reported names are kept up to a
    /// limit, after which no further key is reported, so that no input exhausts the memory.
    void Check(const Krt::JSON::YObject& record, unsigned long long line, Report& report);
    /// Returns the first known key whose value does not have its type; empty if there is no such key.
    static std::string FindMisfit(const Krt::JSON::YObject& record);

private:
    std::set<std::string> m_reported;
    std::size_t m_bytes = 0; // of m_reported
    bool m_isFull = false;
};

} // namespace Agent
