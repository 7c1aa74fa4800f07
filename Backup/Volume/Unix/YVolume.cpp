#include "Backup/Volume/Unix/YVolume.h"

#include "Backup/Volume/Unix/Discovery.h"
#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Volume/YVolume.h"

#include <algorithm>

namespace Backup::Volume {

using Krt::File::YPath;

namespace {

constexpr unsigned int VolumeType = 0xFFFFD8F1;
// The value of properties that are unknown for every volume; callers expect this text.
constexpr const char* Unfilled = "@@TODO";

} // namespace

YPath YVolume::_tagVOL_INFO::GetPrimaryMountPath() const
{
    const auto shallowest = std::ranges::min_element(
        mountPaths, {}, [](const auto& mount) { return mount.path.PopulateComponents().size(); });
    return shallowest == mountPaths.end() ? YPath() : shallowest->path;
}

YVolume::YVolume()
{
    InitializeVariables();
}

YVolume::YVolume(const YPath& path)
{
    Initialize(path);
}

YVolume::YVolume(const YVolume& other) : YVolumeBase(other)
{
    CopyData(other);
}

YVolume& YVolume::operator=(const YVolume& other)
{
    if (this != &other)
        CopyData(other);
    return *this;
}

void YVolume::InitializeVariables()
{
    m_info.uniquePath = YPath();
    m_info.size = 0;
    m_info.driveType = 0;
    m_info.mountPaths.clear();
    m_info.readOnly = false;
    m_path = YPath();
    m_initialized = false;
}

void YVolume::CopyData(const YVolume& other)
{
    InitializeVariables();
    m_info = other.m_info;
    m_initialized = other.m_initialized;
    m_path = other.m_path;
}

void YVolume::Initialize()
{
    InitializeVariables();
}

void YVolume::Initialize(const YPath& path)
{
    Discovery discovery;
    Initialize(path, discovery);
}

void YVolume::Initialize(const YPath& path, Discovery& discovery)
{
    InitializeVariables();
    m_path = path;
    KRT_LOG(MessageType::Volume, "Initializing volume with path " << m_path);
    try {
        LoadInfo(discovery);
    } catch (const Krt::Exception::YError& error) {
        KRT_LOG(MessageType::General, "Failed to load volume info " << m_path << " " << error);
        throw;
    }
    // This look-up is made only for the log line. It comes first because it logs its own steps.
    if (Krt::Log::IsLogged(MessageType::Volume)) {
        const YPath mountPath = discovery.GetVolumePathName(m_path);
        KRT_LOG(MessageType::Volume, "With volume mount path: " << mountPath);
    }
    m_initialized = true;
}

void YVolume::LoadInfo(Discovery& discovery)
{
    m_info.uniquePath = discovery.GetVolumeUniquePath(m_path);
    KRT_LOG(MessageType::Volume, "Got volume uniquePath " << m_info.uniquePath);
    const MountPath mount = discovery.DetermineMountPath(m_info.uniquePath, m_path);
    if (mount.count != 0)
        m_info.mountPaths.push_back(mount);
    for (unsigned int i = 0; i < mount.count && Krt::Log::IsLogged(MessageType::Volume); ++i)
        KRT_LOG(MessageType::Volume, " Determined mount path " << mount.path << "->" << mount.holder);
    m_info.driveType = discovery.DetermineDriveType(m_info.uniquePath);
    m_info.readOnly = discovery.IsReadOnly(m_path);
}

YVolume::operator YPath() const
{
    if (!m_initialized)
        KRT_RAISE_AS("operator YPath", MessageType::General, ErrorCode::InvalidState);
    return m_info.uniquePath;
}

YPath YVolume::GetGuidPath() const
{
    KRT_RAISE_UNLESS(m_initialized, ErrorCode::InvalidState, "Volume not initialized");
    return m_info.uniquePath;
}

unsigned int YVolume::GetDriveType() const
{
    KRT_RAISE_UNLESS(m_initialized, ErrorCode::InvalidState, "Volume not initialized");
    return m_info.driveType;
}

YString YVolume::GetFsType() const
{
    KRT_RAISE_UNLESS(m_initialized, ErrorCode::InvalidState, "Volume not initialized");
    return m_info.fsType;
}

bool YVolume::IsReadOnly() const
{
    KRT_RAISE_UNLESS(m_initialized, ErrorCode::InvalidState);
    return m_info.readOnly;
}

unsigned long long YVolume::GetVolumeSize() const
{
    return m_info.size;
}

unsigned long long YVolume::GetVolumeFreeSpace() const
{
    return Krt::Volume::YVolume(m_path).GetVolumeFreeSpace();
}

YPath YVolume::GetMountPath(unsigned int index) const
{
    for (const MountPath& mount : m_info.mountPaths) {
        if (index < mount.count)
            return mount.path;
        index -= mount.count;
    }
    KRT_RAISE(ErrorCode::NotSupported, "Not implemented");
}

unsigned int YVolume::GetMountPathCount() const
{
    unsigned int count = 0;
    for (const MountPath& mount : m_info.mountPaths)
        count += mount.count;
    return count;
}

YPath YVolume::GetPrimaryMountPath() const
{
    return m_info.GetPrimaryMountPath();
}

bool YVolume::operator==(const YVolume& other) const
{
    return m_info.uniquePath == other.m_info.uniquePath;
}

bool YVolume::operator!=(const YVolume& other) const
{
    return !(*this == other);
}

bool YVolume::operator<(const YVolume& other) const
{
    return m_info.uniquePath < other.m_info.uniquePath;
}

unsigned int YVolume::GetType() const
{
    return VolumeType;
}

YString YVolume::GetBusType() const
{
    return Unfilled;
}

YString YVolume::GetVendor() const
{
    return Unfilled;
}

YString YVolume::GetProduct() const
{
    return Unfilled;
}

YString YVolume::GetStringRepresentation() const
{
    return Unfilled;
}

unsigned int YVolume::GetClusterSize() const
{
    return 0;
}

bool YVolume::IsAccessible() const
{
    return true;
}

bool YVolume::SupportsBackup() const
{
    return true;
}

bool YVolume::SupportsSnapshot() const
{
    return false;
}

bool YVolume::SupportsChangeJournal() const
{
    return false;
}

} // namespace Backup::Volume
