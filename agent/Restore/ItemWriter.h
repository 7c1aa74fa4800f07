// ItemWriter: creates the entries of a restore in its target, in the order of the walk. What is there already
// is kept if it is equal. A failure is reported and concerns one entry; nothing is created below a directory
// that failed.
#pragma once

#include "agent/Restore/FileBlobs.h"
#include "agent/Restore/RestoreState.h"

#include <set>

namespace Agent {

class ItemWriter
{
public:
    /// The state outlives this object.
    explicit ItemWriter(RestoreState& state) : m_state(state) {}

    /// Creates the entry, or prints in a dry run what would be done. `blobs` have the content of a file.
    /// Raises TargetFull, and InvalidState if the user interrupts.
    void Write(RestoreItem& item, FileBlobs& blobs);

private:
    void Make(RestoreItem& item, FileBlobs& blobs);
    const Krt::File::YDirectory* ParentOf(const RestoreItem& item);
    std::optional<struct stat> MakeRoom(RestoreItem& item);
    void MakeDirectory(RestoreItem& item, const std::optional<struct stat>& existing);
    void PlanUnseen(RestoreItem& item, const std::optional<struct stat>& existing);
    void MakeOther(RestoreItem& item, FileBlobs& blobs);
    void WriteContent(const RestoreItem& item, const Krt::File::YDirectory& parent, FileBlobs& blobs,
                      const Krt::Util::YUnxHandle& file);
    bool KeepUnchanged(RestoreItem& item);
    bool KeepOther(const RestoreItem& item, const Krt::File::YDirectory& parent, const struct stat& now);
    bool KeepFile(const RestoreItem& item, const Krt::Util::YUnxHandle& file);
    void NoteOtherTimes(const RestoreItem& item);
    void NoteUnverified(const std::string& path);

    RestoreState& m_state;
    std::string m_failedDirectory; // with a slash; nothing below the directory is restored
    std::set<dev_t> m_noted;       // file systems that can't store some times
};

} // namespace Agent
