#include "agent/Run/Similar.h"

#include <algorithm>
#include <string>
#include <vector>

namespace Agent {

namespace {

// Longer texts are not compared: the distance takes time by the product of the sizes.
constexpr std::size_t LongestText = 255;
constexpr std::size_t SizeForTwo = 6;

std::string LowerCase(std::string_view text)
{
    std::string lower(text);
    for (char& byte : lower)
        byte = static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte - 'A' + 'a' : byte);
    return lower;
}

// The number of changes that make b of a.
std::size_t Distance(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> before(b.size() + 1), last(b.size() + 1), row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
        last[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                row[j] = std::min(row[j], before[j - 2] + 1);
        }
        before.swap(last);
        last.swap(row);
    }
    return last[b.size()];
}

} // namespace

bool IsMisspelt(std::string_view typed, std::string_view meant)
{
    if (typed == meant || std::max(typed.size(), meant.size()) > LongestText)
        return false;
    const std::string a = LowerCase(typed);
    const std::string b = LowerCase(meant);
    const std::size_t least = std::min(a.size(), b.size());
    return a == b || (least > 2 && Distance(a, b) <= (least >= SizeForTwo ? 2u : 1u));
}

} // namespace Agent
