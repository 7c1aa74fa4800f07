// EntryMaker: creates the entries that a restore creates, all below its target. Each is created under a
// temporary name and renamed once it is complete, so a failure leaves the entry that it was to replace.
#pragma once

#include "agent/Restore/RecordedEntry.h"
#include "agent/Restore/TargetTree.h"
#include "agent/Run/Report.h"

#include "Krt/File/Unix/Status.h"

#include <functional>
#include <stdexcept>

namespace Agent {

/// The target has no space left or is read-only, which ends a restore. It is not a YError, so that it is not
/// handled as the failure of one entry.
class TargetFull : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The first hard link of a file, when others may follow.
struct LinkedFile
{
    TargetLocation location;
    Krt::File::FileId file;
};

/// An entry to be created that is not a directory. What it refers to outlives it.
struct NewEntry
{
    const RecordedEntry& recorded;
    const TargetLocation& location;
    Krt::YString linkTarget{};                  ///< of a symlink
    std::optional<unsigned long long> device{}; ///< number of a device; nothing if it is not known
    bool hasOtherNames = false;                 ///< Make returns its identity
    const LinkedFile* first = nullptr;          ///< the entry becomes a hard link to it, if that is possible
    /// Writes the content of a file, whose handle is open for writing, at offset 0.
    std::function<void(const Krt::Util::YUnxHandle& file)> writeContent{};
};

class EntryMaker
{
public:
    /// The report outlives this object; `target` is open.
    EntryMaker(Krt::File::YDirectory target, Report& report);
    EntryMaker(const EntryMaker&) = delete;
    EntryMaker& operator=(const EntryMaker&) = delete;

    TargetTree& GetTree() { return m_tree; }
    /// Reasons for what the current entry did not get. Cleared by the caller.
    std::vector<Krt::YString>& GetRefused() { return m_refused; }

    /// Creates the entry, and replaces what exists at its location unless that is a directory. Returns its
    /// identity if it was created, and nothing if it became a hard link. Raises the operating system's error,
    /// and InvalidState or NotSupported for an entry that can't be created.
    std::optional<Krt::File::FileId> Make(const NewEntry& entry);
    /// Counts the current entry, or reports it as failed if it was refused something.
    void Count(const Krt::YString& path);
    /// Reports an entry that failed. Raises TargetFull if all others would fail in the same way, and
    /// InvalidState if the user interrupts.
    void Failed(const Krt::YString& path, const Krt::Exception::YError& error);

private:
    void MakeFile(const NewEntry& entry, const Krt::File::YDirectory& parent,
                  std::optional<Krt::File::FileId>& made);
    void MakeOther(const NewEntry& entry, const Staging& staging);
    bool MakeHardLink(const LinkedFile* first, const TargetLocation& location);
    Krt::YString WithoutTemporary(const Krt::YString& path, const Krt::YString& reason) const;
    void RemoveTemporary(const Krt::File::YDirectory& parent);

    Report& m_report;
    unsigned long long m_restored = 0; // entries in full; a directory counts until it is refused attributes
    TargetTree m_tree;                 // reports refused attributes also from its destructor
    std::vector<Krt::YString> m_refused;
    Krt::YString m_temporary; // the name of an entry until it is complete
};

} // namespace Agent
