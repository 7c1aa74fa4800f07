#include "Backup/Volume/Unix/YVolume.h"

#include "Backup/Volume/Unix/Util.h"
#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Volume/YVolume.h"

#include <algorithm>

namespace Backup::Volume {

using Krt::File::YPath;

namespace {

constexpr unsigned int VolumeType = 0xFFFFD8F1;
// What is unknown of every volume; the text is what callers expect.
constexpr const char* Unfilled = "@@TODO";

} // namespace

YPath YVolume::_tagVOL_INFO::GetPrimaryMountPath() const
{
    const auto shallowest = std::ranges::min_element(
        mountPaths, {}, [](const auto& mount) { return mount.first.PopulateComponents().size(); });
    return shallowest == mountPaths.end() ? YPath() : shallowest->first;
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
    InitializeVariables();
    m_path = path;
    KRT_LOG(MessageType::Volume, "Initializing volume with path " << m_path);
    try {
        LoadInfo();
    } catch (const Krt::Exception::YError& error) {
        KRT_LOG(MessageType::General, "Failed to load volume info " << m_path << " " << error);
        throw;
    }
    // The climb costs system calls, so it is made for the line alone; what it logs stands in front.
    if (Krt::Log::IsLogged(MessageType::Volume)) {
        const YPath mountPath = GetVolumePathName(m_path);
        KRT_LOG(MessageType::Volume, "With volume mount path: " << mountPath);
    }
    m_initialized = true;
}

void YVolume::LoadInfo()
{
    m_info.uniquePath = GetVolumeUniquePath(m_path);
    KRT_LOG(MessageType::Volume, "Got volume uniquePath " << m_info.uniquePath);
    m_info.mountPaths = DetermineVolumeMountPaths(m_info.uniquePath, m_path);
    for (const auto& [mountPath, holder] : m_info.mountPaths)
        KRT_LOG(MessageType::Volume, " Determined mount path " << mountPath << "->" << holder);
    m_info.driveType = DetermineDriveType(m_info.uniquePath);
    m_info.readOnly = Volume::IsReadOnly(m_path);
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
    KRT_RAISE_UNLESS(index < m_info.mountPaths.size(), ErrorCode::NotSupported, "Not implemented");
    return m_info.mountPaths[index].first;
}

unsigned int YVolume::GetMountPathCount() const
{
    return static_cast<unsigned int>(m_info.mountPaths.size());
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
