#include "Backup/Volume/Unix/YVolumeManager.h"

#include "Backup/Volume/Unix/Discovery.h"
#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"

#include <boost/make_shared.hpp>

namespace Backup::Volume {

using Krt::File::YPath;
using Krt::Thread::YMutex;

namespace {

constexpr std::size_t InitialBuckets = 16;
constexpr unsigned int EveryType = 0xFFFFFFFF;

} // namespace

YVolumeManager::YVolumeManager() : m_volumes(InitialBuckets) {}

void YVolumeManager::EnsureFresh()
{
    const YMutex::YLock lock = m_mutex.Lock();
    if (!m_volumes.empty())
        return;
    KRT_LOG(MessageType::Volume, "Refreshing volume list");
    RebuildVolumeList();
}

void YVolumeManager::RebuildVolumeList()
{
    const YMutex::YLock lock = m_mutex.Lock();
    m_volumes.clear();
    Discovery discovery;
    for (const Krt::Volume::MountEntry& entry : discovery.GetEntries()) {
        if (ClassifyFilesystemType(entry.type) != DRIVE_CLASS_FIXED)
            continue;
        const auto volume = boost::make_shared<YVolume>();
        volume->Initialize(YPath(entry.directory), discovery);
        m_volumes[volume->GetPath()] = volume;
    }
}

void YVolumeManager::InvalidateVolumeList()
{
    const YMutex::YLock lock = m_mutex.Lock();
    // Build the list even if it is empty, so that the caller learns now if a volume cannot be described.
    EnsureFresh();
    m_volumes.clear();
}

YVolumeManager::VolumeMap YVolumeManager::GetVolumeList(unsigned int typeMask, bool accessibleOnly)
{
    const YMutex::YLock lock = m_mutex.Lock();
    EnsureFresh();
    if (typeMask == EveryType && !accessibleOnly)
        return m_volumes;
    VolumeMap chosen(InitialBuckets);
    for (const auto& [path, volume] : m_volumes) {
        if ((volume->GetType() & typeMask) != 0 && (!accessibleOnly || volume->IsAccessible()))
            chosen.emplace(path, volume);
    }
    return chosen;
}

boost::shared_ptr<YVolume> YVolumeManager::GetVolumeByUniquePath(const YPath& key)
{
    const YMutex::YLock lock = m_mutex.Lock();
    EnsureFresh();
    const auto found = m_volumes.find(key);
    KRT_RAISE_UNLESS(found != m_volumes.end(), ErrorCode::InvalidState,
                     "Volume not found by unique path: " << key);
    return found->second;
}

boost::shared_ptr<YVolume> YVolumeManager::VolumeOfFilename(const YPath& path)
{
    return boost::make_shared<YVolume>(path);
}

YPath YVolumeManager::GetUniquePathFromMountPoint(const YPath& path)
{
    return GetVolumeUniquePath(path);
}

} // namespace Backup::Volume
