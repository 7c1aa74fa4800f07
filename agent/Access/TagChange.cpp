#include "agent/Access/TagChange.h"

#include "agent/Run/UsageError.h"

#include <algorithm>
#include <sstream>

namespace Agent {

namespace {

bool Contains(const std::vector<std::string>& tags, const std::string& tag)
{
    return std::find(tags.begin(), tags.end(), tag) != tags.end();
}

void AddMissing(const std::vector<std::string>& added, std::vector<std::string>& tags)
{
    for (const std::string& tag : added) {
        if (!Contains(tags, tag))
            tags.push_back(tag);
    }
}

std::string WithoutBlanksAround(const std::string& tag)
{
    const std::size_t begin = tag.find_first_not_of(' ');
    return begin == std::string::npos ? "" : tag.substr(begin, tag.find_last_not_of(' ') + 1 - begin);
}

std::vector<std::string> TagsOfLists(const std::vector<std::string>& lists)
{
    std::vector<std::string> tags;
    for (const std::string& list : lists)
        AddMissing(TagsOfList(list), tags);
    return tags;
}

} // namespace

std::vector<std::string> TagsOfList(const std::string& list)
{
    std::vector<std::string> tags;
    std::istringstream in(list);
    for (std::string tag; std::getline(in, tag, ',');) {
        tag = WithoutBlanksAround(tag);
        if (!tag.empty())
            AddMissing({tag}, tags);
    }
    return tags;
}

TagChange::TagChange(const std::vector<std::string>& set, const std::vector<std::string>& add,
                     const std::vector<std::string>& remove)
    : m_replaces(!set.empty()), m_add(TagsOfLists(m_replaces ? set : add)), m_remove(TagsOfLists(remove))
{
    if (m_replaces && (!add.empty() || !remove.empty()))
        throw UsageError("--set excludes --add and --remove");
    if (!m_replaces && m_add.empty() && m_remove.empty())
        throw UsageError("Name tags to --set, --add or --remove");
}

std::vector<std::string> TagChange::TagsOf(const Repo::Snapshot& snapshot) const
{
    std::vector<std::string> tags = m_replaces ? std::vector<std::string>() : snapshot.tags;
    AddMissing(m_add, tags);
    // A stored tag may have blanks around it, which can't be typed.
    std::erase_if(tags,
                  [this](const std::string& tag) { return Contains(m_remove, WithoutBlanksAround(tag)); });
    return tags;
}

std::optional<Repo::Id> TagChange::Apply(const Repo::Repository& repository,
                                         const Repo::StoredSnapshot& stored,
                                         const std::vector<Repo::StoredSnapshot>& existing,
                                         const Repo::FailureVisitor& onLeft) const
{
    Repo::Snapshot changed = stored.snapshot;
    changed.tags = TagsOf(stored.snapshot);
    if (changed.tags == stored.snapshot.tags)
        return std::nullopt;
    changed.original = stored.snapshot.original.value_or(stored.id);
    const std::string text = changed.ToJson();
    const auto saved = std::find_if(existing.begin(), existing.end(), [&](const Repo::StoredSnapshot& each) {
        return each.snapshot.original == changed.original && each.snapshot.tags == changed.tags &&
               each.snapshot.ToJson() == text;
    });
    const Repo::Id id =
        saved != existing.end() ? saved->id : repository.SaveText(Repo::FileKind::Snapshot, text);
    repository.RemoveFile({Repo::FileKind::Snapshot, stored.id}, onLeft);
    return id;
}

} // namespace Agent
