// NamesAhead: what is left of a way that is gone name by name, as the kernel would.
#pragma once

#include <string>
#include <vector>

namespace Agent {

class NamesAhead
{
public:
    /// Puts the names of the path in front, as a link does. Empty ones and "." are left out.
    void Push(const std::string& path);
    bool IsEmpty() const { return m_names.empty(); }
    /// The next one; there is one.
    std::string Take();

private:
    std::vector<std::string> m_names; // the last one comes next
};

} // namespace Agent
