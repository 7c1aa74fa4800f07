// YVolume: one mounted volume. It is filled once, from a path anywhere on it, and then answers from memory,
// the free space excepted. The interface is wider than this platform can fill: what has no meaning here
// answers a fixed value, and callers rely on those values. An object has no lock: one thread fills it, then
// any number read.
#pragma once

#include "Backup/Volume/Unix/Util.h"
#include "Backup/Volume/YVolumeBase.h"

#include <vector>

namespace Backup::Volume {

class Discovery;

class BACKUP_API YVolume final : public YVolumeBase
{
public:
    /// What was learned of a volume.
    struct _tagVOL_INFO
    {
        Krt::File::YPath uniquePath; ///< the volume's identity
        unsigned long long size = 0; ///< never filled on this platform
        unsigned int driveType = 0;  ///< see DriveClass
        /// What DetermineVolumeMountPaths lists, an entry for each run of equal pairs: all volumes of a
        /// device with thousands of mounts would otherwise take millions.
        std::vector<MountPath> mountPaths;
        YString fsType;        ///< never filled on this platform
        bool readOnly = false; ///< of the mount that holds the path

        /// The mount path of the fewest components, of equals the earliest; empty if there is none.
        Krt::File::YPath GetPrimaryMountPath() const;
    };

    /// An uninitialized volume: its counts, sizes and paths are zero and empty, and the operations that say
    /// so raise InvalidState.
    YVolume();
    /// Raises as Initialize.
    explicit YVolume(const Krt::File::YPath& path);
    YVolume(const YVolume& other);
    YVolume& operator=(const YVolume& other);
    ~YVolume() = default;

    /// The unique path; raises InvalidState on an uninitialized volume.
    operator Krt::File::YPath() const override;
    /// Back to the uninitialized state.
    void Initialize() override;
    /// Starts afresh on any object. What can't be learned is logged and raised as volume discovery raises it;
    /// the object is then uninitialized, with what was filled so far.
    void Initialize(const Krt::File::YPath& path) override;
    /// 0xFFFFD8F1 for every volume; YVolumeManager::GetVolumeList masks it.
    unsigned int GetType() const override;
    /// Empty; raises InvalidState on an uninitialized volume.
    YString GetFsType() const override;
    /// "@@TODO".
    YString GetBusType() const override;
    YString GetVendor() const override;
    YString GetProduct() const override;
    /// Always 0.
    unsigned long long GetVolumeSize() const override;
    /// Asks the operating system at every call, by the path that the volume was filled from, and raises its
    /// error.
    unsigned long long GetVolumeFreeSpace() const override;
    /// Raises NotSupported at the count and beyond.
    Krt::File::YPath GetMountPath(unsigned int index) const override;
    /// What was learned of the mounts; 0 is the cluster's size.
    unsigned int GetMountPathCount() const override;
    Krt::File::YPath GetPrimaryMountPath() const override;
    unsigned int GetClusterSize() const override;
    /// Raises InvalidState on an uninitialized volume.
    bool IsReadOnly() const override;
    /// True, as is SupportsBackup; the other two are false.
    bool IsAccessible() const override;
    bool SupportsBackup() const override;
    bool SupportsSnapshot() const override;
    bool SupportsChangeJournal() const override;
    /// "@@TODO", too.
    YString GetStringRepresentation() const override;

    /// The volume's DriveClass; raises InvalidState on an uninitialized volume, as does GetGuidPath.
    unsigned int GetDriveType() const;
    /// The unique path.
    Krt::File::YPath GetGuidPath() const;
    /// The path that the volume was filled from.
    Krt::File::YPath GetPath() const { return m_path; }

    /// By the unique paths' bytes, initialized or not: two objects of one volume are equal.
    bool operator==(const YVolume& other) const;
    bool operator!=(const YVolume& other) const;
    bool operator<(const YVolume& other) const;

private:
    void InitializeVariables();
    void CopyData(const YVolume& other);
    // As Initialize(path), from a discovery that describes several volumes.
    void Initialize(const Krt::File::YPath& path, Discovery& discovery);
    void LoadInfo(Discovery& discovery);
    friend class YVolumeManager;

    [[maybe_unused]] bool m_reserved = false;
    bool m_initialized = false; // set last, by Initialize
    Krt::File::YPath m_path;
    _tagVOL_INFO m_info;
};

} // namespace Backup::Volume
