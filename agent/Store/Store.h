// Store: the directory that holds backups. It has content-addressed objects, one file a snapshot, and a
// folder for what is still being written; docs/store-format.md tells the form. Nothing that a name in the
// store stands for ever changes, so any number of processes may read one store and back up into it at once.
// One thread uses a Store object at a time.
#pragma once

#include "agent/Store/ObjectFolder.h"

#include "Krt/File/YDirectory.h"

#include <optional>
#include <string>
#include <vector>

namespace Agent {

class Store
{
public:
    /// Raises NotFound for a missing directory, InvalidArgument for one that is no store or has a format that
    /// this program doesn't know. The store is for reading.
    static Store Open(const std::string& path);
    /// The same for reading and writing, but makes the store, mode 0700, where the directory is missing or
    /// empty. Its parent must exist.
    static Store OpenOrCreate(const std::string& path);

    /// As given; for messages.
    const Krt::YString& GetPath() const { return m_path; }
    /// The directory itself, by which a walk recognises it.
    const Krt::File::YDirectory& GetDirectory() const { return m_directory; }

    /// The ids of all snapshots, the oldest first.
    std::vector<std::string> ListSnapshots() const;
    /// The id that the user means: "latest", an id, or the beginning of exactly one. Raises NotFound, or
    /// InvalidArgument if several begin so.
    std::string FindSnapshot(const std::string& wanted) const;

    // For the readers and writers of this folder.
    const ObjectFolder& GetObjects() const { return m_objects; }
    const Krt::File::YDirectory& GetSnapshots() const { return m_snapshots; }
    /// Of a store that was opened for writing, too.
    const Krt::File::YDirectory& GetTemporaries() const { return *m_temporaries; }

private:
    Store(const std::string& path, Krt::File::YDirectory directory);

    Krt::YString m_path;
    Krt::File::YDirectory m_directory;
    ObjectFolder m_objects;
    Krt::File::YDirectory m_snapshots;
    std::optional<Krt::File::YDirectory> m_temporaries;
};

} // namespace Agent
