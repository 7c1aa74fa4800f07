#pragma once

#include "Backup/Export.h"
#include "Backup/Volume/Unix/YVolume.h"
#include "Krt/File/YPath.h"
#include "Krt/Thread/YMutex.h"

#include <boost/shared_ptr.hpp>
#include <boost/unordered_map.hpp>

namespace Backup::Volume {

/// A list of the machine's fixed volumes, so that each is described only once, at the cost of many system
/// calls. The first query builds the list. It does not follow later mounts until it is rebuilt or
/// invalidated. An empty list counts as not built. One lock is held during each operation on the list,
/// including a rebuild. Any thread may call.
class BACKUP_API YVolumeManager
{
public:
    /// Volumes by their mount directories in the mount table.
    using VolumeMap = boost::unordered_map<Krt::File::YPath, boost::shared_ptr<YVolume>>;

    /// Begins with an empty list. Raises MutexInitFailed.
    YVolumeManager();
    YVolumeManager(const YVolumeManager&) = delete;
    YVolumeManager& operator=(const YVolumeManager&) = delete;

    /// Builds the list if it is empty. Raises the errors of RebuildVolumeList.
    void EnsureFresh();
    /// Rebuilds the list. The first error that describing a volume raises ends the rebuild. The volumes
    /// before it stay listed, and count as a fresh list.
    void RebuildVolumeList();
    /// Empties the list. If it is empty already, it is built first. Raises the errors of RebuildVolumeList.
    void InvalidateVolumeList();

    /// Returns the volumes whose type has a bit of `typeMask` and, with `accessibleOnly`, that are
    /// accessible. The result shares ownership of the volumes with this object. Raises the errors of
    /// RebuildVolumeList.
    VolumeMap GetVolumeList(unsigned int typeMask, bool accessibleOnly);
    /// Returns the listed volume whose mount directory is `key`. Raises InvalidState if it is not listed.
    boost::shared_ptr<YVolume> GetVolumeByUniquePath(const Krt::File::YPath& key);

    /// Returns a new description of the volume, of any class, that contains the path. Uses neither the list
    /// nor the lock. Raises the errors of YVolume.
    boost::shared_ptr<YVolume> VolumeOfFilename(const Krt::File::YPath& path);
    /// Calls Volume::GetVolumeUniquePath. Uses neither the list nor the lock.
    Krt::File::YPath GetUniquePathFromMountPoint(const Krt::File::YPath& path);

private:
    Krt::Thread::YMutex m_mutex;
    VolumeMap m_volumes;
};

} // namespace Backup::Volume
