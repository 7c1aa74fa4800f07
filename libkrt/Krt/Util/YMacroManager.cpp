#include "Krt/Util/YMacroManager.h"

namespace Krt::Util {

void YMacroManager::Add(const YString& key, const YString& value)
{
    m_macros[key] = value;
}

YString YMacroManager::Expand(YString text) const
{
    std::string result;
    std::string_view rest = text.Bytes();
    for (std::size_t close; (close = rest.find('}')) != std::string_view::npos;
         rest.remove_prefix(close + 1)) {
        const std::size_t open = rest.substr(0, close).rfind("${");
        auto macro = m_macros.end();
        if (open != std::string_view::npos)
            macro = m_macros.find(YString(rest.substr(open + 2, close - open - 2)));
        if (macro != m_macros.end())
            result.append(rest.substr(0, open)).append(macro->second.Bytes());
        else
            result.append(rest.substr(0, close + 1));
    }
    result.append(rest);
    return YString(std::move(result));
}

} // namespace Krt::Util
