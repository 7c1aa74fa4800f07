#include "agent/Inspect/PackSubset.h"

#include "agent/Run/Text.h"
#include "agent/Run/UsageError.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace Agent {

namespace {

// Reads a number at the beginning of the text; `end` is set to the position after it.
double NumberIn(const std::string& text, std::size_t& end)
{
    end = text.find_first_not_of("0123456789.");
    end = end == std::string::npos ? text.size() : end;
    try {
        return std::stod(text.substr(0, end));
    } catch (const std::exception&) {
        return -1;
    }
}

} // namespace

PackSubset PackSubset::Parse(const std::string& text)
{
    PackSubset subset;
    std::size_t end = 0;
    const double number = NumberIn(text, end);
    const std::string unit = text.substr(end);
    if (unit.starts_with('/') && unit.size() > 1) {
        std::size_t rest = 0;
        const std::string total = unit.substr(1);
        const double parts = NumberIn(total, rest);
        const bool isWhole = std::floor(number) == number && std::floor(parts) == parts;
        if (isWhole && rest == total.size() && number >= 1 && number <= parts && parts <= 256) {
            subset.part = static_cast<unsigned int>(number);
            subset.parts = static_cast<unsigned int>(parts);
            return subset;
        }
    } else if (unit == "%" && number > 0 && number <= 100) {
        subset.percent = number;
        return subset;
    } else if (const auto bytes = ParseSize(text); bytes && *bytes != 0) {
        subset.bytes = *bytes;
        return subset;
    }
    throw UsageError("--read-data-subset takes n/t with t up to 256, a percentage such as 2.5%, or a size "
                     "such as 500M: '" +
                     text + "'");
}

std::vector<std::uint32_t> PackSubset::Choose(const std::vector<Repo::IndexedPack>& packs,
                                              const std::vector<std::uint64_t>& sizes) const
{
    std::vector<std::uint32_t> chosen;
    for (std::uint32_t number = 0; number < packs.size(); ++number) {
        if (sizes[number] != NoSize && packs[number].id.bytes[0] % parts == part - 1)
            chosen.push_back(number);
    }
    const bool isRandom = percent < 100 || bytes != UINT64_MAX;
    if (!isRandom)
        return chosen;
    std::shuffle(chosen.begin(), chosen.end(), std::mt19937_64(std::random_device()()));
    auto count = static_cast<std::size_t>(std::ceil(static_cast<double>(chosen.size()) * percent / 100));
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (total >= bytes)
            count = i;
        else
            total += sizes[chosen[i]];
    }
    chosen.resize(count);
    return chosen;
}

} // namespace Agent
