#pragma once

#include "Backup/Volume/Unix/Util.h"
#include "Krt/File/YPath.h"
#include "Krt/Volume/MountTable.h"

#include <boost/unordered_map.hpp>

#include <optional>
#include <string_view>
#include <vector>

namespace Backup::Volume {

/// Volume discovery with one reading of the mount table. The first query that needs the table reads and
/// indexes it, and each mount point is searched for once. So describing all volumes of a machine takes time
/// in proportion to their number. Results, log lines and errors are those of the functions in Util.h.
/// Util.cpp, which the errors report, defines both. One thread at a time.
class Discovery
{
public:
    Discovery() = default;
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    /// The mount table, in the system's order.
    const std::vector<Krt::Volume::MountEntry>& GetEntries() { return GetTable().entries; }

    /// See Volume::GetVolumePathName.
    Krt::File::YPath GetVolumePathName(const Krt::File::YPath& path);
    /// See Volume::GetVolumeUniquePath.
    Krt::File::YPath GetVolumeUniquePath(const Krt::File::YPath& path);
    /// See Volume::DetermineDriveType.
    unsigned int DetermineDriveType(const Krt::File::YPath& uniquePath);
    /// See Volume::IsReadOnly.
    bool IsReadOnly(const Krt::File::YPath& path);
    /// Returns the pair that DetermineVolumeMountPaths lists, with its number of repetitions.
    MountPath DetermineMountPath(const Krt::File::YPath& uniquePath, const Krt::File::YPath& path);

private:
    // All mounts of one source.
    struct Source
    {
        const Krt::Volume::MountEntry* first;
        unsigned int count;
    };
    // The keys are texts of the entries.
    struct Table
    {
        std::vector<Krt::Volume::MountEntry> entries;
        boost::unordered_map<std::string_view, const Krt::Volume::MountEntry*>
            byDirectory; // the first of each
        boost::unordered_map<std::string_view, Source> bySource;
    };

    const Table& GetTable();
    // The first entry with this directory, or nullptr; logs the number of all entries.
    const Krt::Volume::MountEntry* FindMountedAt(const Krt::File::YPath& mountPath);
    // With a count of 0 if the table has no such source.
    Source FindSource(const Krt::File::YPath& uniquePath);

    std::optional<Table> m_table;
    boost::unordered_map<Krt::File::YPath, Krt::File::YPath> m_mountPaths; // of each path climbed through
};

} // namespace Backup::Volume
