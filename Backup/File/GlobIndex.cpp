#include "Backup/File/GlobIndex.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

// A name that a pattern matches contains each piece of the pattern, which is a run of bytes between
// wildcards. A rule is indexed by one key of its pieces: the number that 8, 4, 2 or 1 adjacent bytes of a
// piece form. That key is looked up at the first bytes of a name, at the last ones, or at each position,
// depending on where the name must contain it.
//
// Many rules share most of their text, such as "*.name17" and "prefix17*". So Add chooses the key that the
// fewest rules have until now. A query costs a look-up for each position and width of the name, whatever the
// number of rules, and a test for each rule that has one of these keys.
namespace Backup::File {

using Krt::Match::MatchType;

namespace {

constexpr std::size_t Widths[] = {8, 4, 2, 1};

// Returns the bytes in lower case, in which a key of a rule in any case equals that of the name.
template <class Number>
std::uint64_t LoadLower(const char* bytes)
{
    Number number;
    std::memcpy(&number, bytes, sizeof(number));
    constexpr std::uint64_t Ones = 0x0101010101010101;
    const std::uint64_t word = number;
    const std::uint64_t sevenBits = word & (Ones * 0x7F);
    // The high bit of each byte is set if the byte is not below 'A', and if it is above 'Z'.
    const std::uint64_t fromA = sevenBits + Ones * (0x80 - 'A');
    const std::uint64_t aboveZ = sevenBits + Ones * (0x7F - 'Z');
    const std::uint64_t isUpper = fromA & ~aboveZ & ~word & (Ones * 0x80);
    return word | isUpper >> 2;
}

// Keys of different widths may be equal, which costs a test of further rules.
std::uint64_t KeyOf(const char* bytes, std::size_t width)
{
    switch (width) {
    case 8:
        return LoadLower<std::uint64_t>(bytes);
    case 4:
        return LoadLower<std::uint32_t>(bytes);
    case 2:
        return LoadLower<std::uint16_t>(bytes);
    default:
        return LoadLower<std::uint8_t>(bytes);
    }
}

} // namespace

// Calls `visit` with the anchor, the width and the key of each key that the rule may have, until it returns
// true.
template <class Visitor>
void GlobIndex::ForEachKey(const Rule& rule, Visitor visit)
{
    const bool isGlob = rule.GetDescriptor().GetMatchType() == MatchType::Glob;
    const std::string_view pattern = rule.GetDescriptor().GetPattern().Bytes();
    for (std::size_t begin = 0; begin < pattern.size();) {
        const std::size_t end =
            isGlob ? std::min(pattern.find_first_of("*?", begin), pattern.size()) : pattern.size();
        const std::size_t size = end - begin;
        const std::size_t* const fits = std::find_if(std::begin(Widths), std::end(Widths),
                                                     [&](std::size_t width) { return width <= size; });
        for (std::size_t at = begin; fits != std::end(Widths) && at + *fits <= end; ++at) {
            const Anchor anchor = at == 0 ? AtBegin : at + *fits == pattern.size() ? AtEnd : Anywhere;
            if (visit(anchor, *fits, KeyOf(pattern.data() + at, *fits)))
                return;
        }
        begin = end + 1;
    }
}

void GlobIndex::Add(const Rule& rule)
{
    struct
    {
        std::size_t cost = static_cast<std::size_t>(-1); // of a query, for this rule
        Anchor anchor = Anywhere;
        std::size_t width = 0;
        std::uint64_t key = 0;
    } best;
    ForEachKey(rule, [&](Anchor anchor, std::size_t width, std::uint64_t key) {
        const auto chain = m_chains.find(key);
        const std::size_t shared = chain == m_chains.end() ? 0 : chain->second.count;
        // A narrow key is in many names, and one that may be anywhere is looked up at each position.
        const std::size_t cost = (shared + 1) * (64 / (width * width)) * (anchor == Anywhere ? 4 : 1);
        if (cost <= best.cost)
            best = {cost, anchor, width, key};
        return false;
    });
    if (best.width == 0) {
        m_others.push_back(&rule);
        return;
    }
    Chain& chain = m_chains.try_emplace(best.key, Chain{None, 0}).first->second;
    if (m_free == None) {
        m_links.push_back({nullptr, None});
        m_free = static_cast<std::uint32_t>(m_links.size() - 1);
    }
    const std::uint32_t next = std::exchange(chain.first, m_free);
    m_free = m_links[m_free].next;
    m_links[chain.first] = {&rule, next};
    ++chain.count;
    m_widths[best.anchor] |= best.width;
}

void GlobIndex::Remove(const Rule& rule) noexcept
{
    const auto other = std::find(m_others.begin(), m_others.end(), &rule);
    if (other != m_others.end()) {
        m_others.erase(other);
        return;
    }
    ForEachKey(rule, [&](Anchor, std::size_t, std::uint64_t key) { return Unlink(key, rule); });
}

// Returns false if the rule has another key. Its width stays in m_widths.
bool GlobIndex::Unlink(std::uint64_t key, const Rule& rule) noexcept
{
    const auto chain = m_chains.find(key);
    if (chain == m_chains.end())
        return false;
    for (std::uint32_t* to = &chain->second.first; *to != None; to = &m_links[*to].next) {
        const std::uint32_t found = *to;
        if (m_links[found].rule != &rule)
            continue;
        *to = m_links[found].next;
        m_links[found] = {nullptr, std::exchange(m_free, found)};
        if (--chain->second.count == 0)
            m_chains.erase(chain);
        return true;
    }
    return false;
}

bool GlobIndex::AnyOfKey(std::uint64_t key, Condition condition) const
{
    const auto chain = m_chains.find(key);
    if (chain == m_chains.end())
        return false;
    for (std::uint32_t link = chain->second.first; link != None; link = m_links[link].next) {
        if (condition(*m_links[link].rule))
            return true;
    }
    return false;
}

bool GlobIndex::Any(const YString& name, Condition condition) const
{
    if (std::any_of(m_others.begin(), m_others.end(), [&](const Rule* rule) { return condition(*rule); }))
        return true;
    if (m_chains.empty())
        return false;
    const std::string_view text = name.Bytes();
    for (const std::size_t width : Widths) {
        if (width > text.size())
            continue;
        const std::size_t last = text.size() - width;
        if ((m_widths[AtBegin] & width) != 0 && AnyOfKey(KeyOf(text.data(), width), condition))
            return true;
        if ((m_widths[AtEnd] & width) != 0 && AnyOfKey(KeyOf(text.data() + last, width), condition))
            return true;
        for (std::size_t at = 0; (m_widths[Anywhere] & width) != 0 && at <= last; ++at) {
            if (AnyOfKey(KeyOf(text.data() + at, width), condition))
                return true;
        }
    }
    return false;
}

} // namespace Backup::File
