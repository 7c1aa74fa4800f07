// YVolumeManager: keeps the machine's fixed volumes, so that describing one, which costs many system calls,
// is done once. The list is built by the first query and stays as it is, whatever is mounted meanwhile, until
// it is rebuilt or invalidated; an empty list counts as not built. One lock is held for the whole of every
// operation on the list, a rebuild included. Any thread may call.
#pragma once

#include "Backup/Export.h"
#include "Backup/Volume/Unix/YVolume.h"
#include "Krt/File/PathHash.h"
#include "Krt/Thread/YMutex.h"

#include <boost/shared_ptr.hpp>
#include <boost/unordered_map.hpp>

namespace Backup::Volume {

class BACKUP_API YVolumeManager
{
public:
    /// Volumes by the directory on which the mount table has them.
    using VolumeMap = boost::unordered_map<Krt::File::YPath, boost::shared_ptr<YVolume>>;

    /// Raises MutexInitFailed. The list begins empty.
    YVolumeManager();
    YVolumeManager(const YVolumeManager&) = delete;
    YVolumeManager& operator=(const YVolumeManager&) = delete;

    /// Builds the list if it is empty. Raises as RebuildVolumeList.
    void EnsureFresh();
    /// Builds the list anew. What the describing of a volume raises ends the rebuild; the volumes before it
    /// stay listed, and count as a fresh list.
    void RebuildVolumeList();
    /// Empties the list, which is built first if it is empty already. Raises as RebuildVolumeList.
    void InvalidateVolumeList();

    /// The volumes whose type has a bit of the mask and, with `accessibleOnly`, are accessible. The list
    /// shares the volumes, and keeps them when this object drops them. Raises as RebuildVolumeList.
    VolumeMap GetVolumeList(unsigned int typeMask, bool accessibleOnly);
    /// The listed volume with this mount directory; raises InvalidState if there is none.
    boost::shared_ptr<YVolume> GetVolumeByUniquePath(const Krt::File::YPath& key);

    /// A new description of the volume of any class that holds the path, past list and lock. Raises as
    /// YVolume.
    boost::shared_ptr<YVolume> VolumeOfFilename(const Krt::File::YPath& path);
    /// As Volume::GetVolumeUniquePath, past list and lock.
    Krt::File::YPath GetUniquePathFromMountPoint(const Krt::File::YPath& path);

private:
    Krt::Thread::YMutex m_mutex;
    VolumeMap m_volumes;
};

} // namespace Backup::Volume
