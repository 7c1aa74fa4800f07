#include "agent/Run/Unix/NamesAhead.h"

namespace Agent {

void NamesAhead::Push(const std::string& path)
{
    std::size_t end = path.size();
    while (end != 0) {
        const std::size_t slash = path.rfind('/', end - 1);
        const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
        const std::string name = path.substr(begin, end - begin);
        if (!name.empty() && name != ".")
            m_names.push_back(name);
        end = slash == std::string::npos ? 0 : slash;
    }
}

std::string NamesAhead::Take()
{
    std::string name = std::move(m_names.back());
    m_names.pop_back();
    return name;
}

} // namespace Agent
