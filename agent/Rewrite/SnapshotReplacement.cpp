#include "agent/Rewrite/SnapshotReplacement.h"

#include <algorithm>

namespace Agent {

using Repo::FileKind;
using Repo::Id;

namespace {

std::string TextWithoutTag(Repo::Snapshot snapshot)
{
    std::erase(snapshot.tags, RewriteTag);
    return snapshot.ToJson();
}

} // namespace

const Repo::StoredSnapshot* FindRewritten(const std::vector<Repo::StoredSnapshot>& existing, const Id& old,
                                          const Repo::Snapshot& changed)
{
    const std::string text = TextWithoutTag(changed);
    const auto equal = std::find_if(existing.begin(), existing.end(), [&](const Repo::StoredSnapshot& each) {
        return each.snapshot.original == old && TextWithoutTag(each.snapshot) == text;
    });
    return equal == existing.end() ? nullptr : &*equal;
}

Id ReplaceSnapshot(const Repo::Repository& repository, Repo::BlobSaver& saver, const Id& old,
                   const Repo::Snapshot& changed, const std::optional<Id>& existing, bool removesOld,
                   const Repo::FailureVisitor& onLeft)
{
    saver.Finish();
    const Id id = existing ? *existing : repository.SaveText(FileKind::Snapshot, changed.ToJson());
    if (removesOld)
        repository.RemoveFile({FileKind::Snapshot, old}, onLeft);
    return id;
}

} // namespace Agent
