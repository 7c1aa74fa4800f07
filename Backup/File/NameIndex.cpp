#include "Backup/File/NameIndex.h"

#include "Krt/String/Ascii.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

// A gram is three adjacent bytes of a pattern in lower case, with two NUL bytes before the pattern and two
// after it, so that the first and the last byte have grams of their own. A Glob covers names that contain
// each of its pieces, which are the runs of bytes between wildcards, with all their grams. Another rule
// covers only its own pattern. So all rules that a rule covers have the rarest gram of its pieces, and only
// those are tested.
//
// Grams cost more than a few tests, and most jobs need none. So an entry is tested for some calls of
// FindPruned before its grams are indexed. Entries of removed rules stay in the lists until they are half of
// all.
namespace Backup::File {

using Krt::Match::MatchType;

namespace {

constexpr std::size_t GramSize = 3;
constexpr std::size_t TestsPerEntry = 3; // before its grams are indexed

// Calls `visit` with each gram of the text.
template <class Visitor>
void ForEachGram(std::string_view text, Visitor visit)
{
    std::uint32_t gram = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        gram = (gram << 8 | static_cast<unsigned char>(Krt::String::ToLower(text[i]))) & 0xFFFFFF;
        if (i + 1 >= GramSize)
            visit(gram);
    }
}

// Returns the pattern with the NUL bytes around it.
std::string Padded(const Krt::Match::Descriptor& names)
{
    std::string text(GramSize - 1, '\0');
    text += names.GetPattern().Bytes();
    return text.append(GramSize - 1, '\0');
}

} // namespace

void NameIndex::Add(const Rule& rule, void* owned)
{
    m_entries.push_back({&rule, owned});
    try {
        m_byRule.emplace(&rule, static_cast<std::uint32_t>(m_entries.size() - 1));
    } catch (...) {
        m_entries.pop_back();
        throw;
    }
}

void NameIndex::Remove(const Rule* rule) noexcept
{
    const auto entry = m_byRule.find(rule);
    if (entry == m_byRule.end())
        return;
    m_entries[entry->second].rule = nullptr;
    m_byRule.erase(entry);
}

std::vector<NameIndex::Entry> NameIndex::FindPruned(const Rule& rule)
{
    if (m_byRule.size() < m_entries.size() / 2)
        Compact();
    m_sizeWhenUsed = m_entries.size();
    const std::size_t tested = m_entries.size() - m_indexed;
    if (m_tested >= TestsPerEntry * tested)
        IndexEntries();
    else
        m_tested += tested;
    std::vector<Entry> pruned;
    const auto test = [&](const Entry& entry) {
        if (entry.rule != nullptr && rule.CanPrune(*entry.rule))
            pruned.push_back(entry);
    };
    bool found = false;
    const Chain* const chain = RarestChain(rule.GetDescriptor(), found);
    if (!found) {
        std::for_each(m_entries.begin(), m_entries.end(), test);
        return pruned;
    }
    for (std::uint32_t link = chain != nullptr ? chain->first : None; link != None;
         link = m_links[link].next) {
        if (m_links[link].entry < m_indexed) // otherwise IndexEntries has failed, and it is tested below
            test(m_entries[m_links[link].entry]);
    }
    std::for_each(m_entries.begin() + static_cast<std::ptrdiff_t>(m_indexed), m_entries.end(), test);
    return pruned;
}

// Drops the entries of removed rules, and the grams.
void NameIndex::Compact()
{
    NameIndex compact;
    for (const Entry& entry : m_entries) {
        if (entry.rule != nullptr)
            compact.Add(*entry.rule, entry.owned);
    }
    *this = std::move(compact);
}

// After a failure, m_indexed is the entry at which memory ran out. Some of its grams are in the lists.
void NameIndex::IndexEntries()
{
    for (; m_indexed < m_entries.size(); ++m_indexed) {
        const Rule* const rule = m_entries[m_indexed].rule;
        if (rule == nullptr)
            continue;
        const auto entry = static_cast<std::uint32_t>(m_indexed);
        ForEachGram(Padded(rule->GetDescriptor()), [&](std::uint32_t gram) {
            Chain& chain = m_chains[gram];
            if (chain.first != None && m_links[chain.first].entry == entry)
                return; // the pattern contains the gram twice, or an earlier call has failed after it
            m_links.push_back({entry, chain.first});
            chain.first = static_cast<std::uint32_t>(m_links.size() - 1);
            ++chain.count;
        });
    }
    m_tested = 0;
}

// Sets `found` to false if the names have no gram. Otherwise returns the entries with the rarest gram, or
// nullptr if no entry has that.
const NameIndex::Chain* NameIndex::RarestChain(const Krt::Match::Descriptor& names, bool& found) const
{
    const bool isGlob = names.GetMatchType() == MatchType::Glob;
    const std::string padded = Padded(names);
    const std::string_view text = padded;
    std::optional<const Chain*> rarest;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = isGlob ? std::min(text.find_first_of("*?", begin), text.size()) : text.size();
        ForEachGram(text.substr(begin, end - begin), [&](std::uint32_t gram) {
            const auto chain = m_chains.find(gram);
            if (chain == m_chains.end())
                rarest = nullptr;
            else if (!rarest || (*rarest != nullptr && chain->second.count < (*rarest)->count))
                rarest = &chain->second;
        });
        begin = end + 1;
    }
    found = rarest.has_value();
    return rarest.value_or(nullptr);
}

} // namespace Backup::File
