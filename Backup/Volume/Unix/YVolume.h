#pragma once

#include "Backup/Volume/Unix/Util.h"
#include "Backup/Volume/YVolumeBase.h"

#include <vector>

namespace Backup::Volume {

class Discovery;

/// One mounted volume. It is filled once, from a path anywhere on it. All later answers except the free
/// space come from memory. Operations without a meaning on this platform return fixed values, on which
/// callers rely. An object has no lock: one thread fills it, then any number of threads read.
class BACKUP_API YVolume final : public YVolumeBase
{
public:
    /// The properties that Initialize determines.
    struct _tagVOL_INFO
    {
        Krt::File::YPath uniquePath; ///< the volume's identity
        unsigned long long size = 0; ///< never filled on this platform
        unsigned int driveType = 0;  ///< see DriveClass
        /// The list of DetermineVolumeMountPaths, with one element for each run of equal pairs. Otherwise
        /// the volumes of a device with thousands of mounts would take millions of elements.
        std::vector<MountPath> mountPaths;
        YString fsType;        ///< never filled on this platform
        bool readOnly = false; ///< true if the mount that contains the path is

        /// Returns the mount path with the fewest components, the earliest one of equals. Empty if there
        /// are no mount paths.
        Krt::File::YPath GetPrimaryMountPath() const;
    };

    /// An uninitialized volume: its counts and sizes are 0 and its paths are empty. Operations that are
    /// documented so raise InvalidState.
    YVolume();
    /// Calls Initialize(path).
    explicit YVolume(const Krt::File::YPath& path);
    /// Copies all properties; no system call is made.
    YVolume(const YVolume& other);
    /// Copies all properties; no system call is made.
    YVolume& operator=(const YVolume& other);
    ~YVolume() = default;

    /// The unique path. Raises InvalidState on an uninitialized volume.
    operator Krt::File::YPath() const override;
    /// Resets to the uninitialized state.
    void Initialize() override;
    /// Discards the former state and fills the object. A failure of volume discovery is logged and raised.
    /// The object is uninitialized then, with the properties determined so far.
    void Initialize(const Krt::File::YPath& path) override;
    /// 0xFFFFD8F1 for every volume; YVolumeManager::GetVolumeList masks it.
    unsigned int GetType() const override;
    /// Always empty. Raises InvalidState on an uninitialized volume.
    YString GetFsType() const override;
    /// Always "@@TODO".
    YString GetBusType() const override;
    /// Always "@@TODO".
    YString GetVendor() const override;
    /// Always "@@TODO".
    YString GetProduct() const override;
    /// Always 0.
    unsigned long long GetVolumeSize() const override;
    /// Calls the operating system each time, with the path that the volume was filled from. Raises its
    /// error.
    unsigned long long GetVolumeFreeSpace() const override;
    /// Raises NotSupported if `index` is not below the count.
    Krt::File::YPath GetMountPath(unsigned int index) const override;
    /// The number of elements of `mountPaths`.
    unsigned int GetMountPathCount() const override;
    /// See _tagVOL_INFO::GetPrimaryMountPath.
    Krt::File::YPath GetPrimaryMountPath() const override;
    /// Always 0.
    unsigned int GetClusterSize() const override;
    /// Raises InvalidState on an uninitialized volume.
    bool IsReadOnly() const override;
    /// Always true.
    bool IsAccessible() const override;
    /// Always true.
    bool SupportsBackup() const override;
    /// Always false.
    bool SupportsSnapshot() const override;
    /// Always false.
    bool SupportsChangeJournal() const override;
    /// Always "@@TODO".
    YString GetStringRepresentation() const override;

    /// The volume's DriveClass. Raises InvalidState on an uninitialized volume.
    unsigned int GetDriveType() const;
    /// The unique path. Raises InvalidState on an uninitialized volume.
    Krt::File::YPath GetGuidPath() const;
    /// The path that the volume was filled from.
    Krt::File::YPath GetPath() const { return m_path; }

    /// Compares the unique paths, initialized or not: two objects of one volume are equal.
    bool operator==(const YVolume& other) const;
    /// The negation of operator==.
    bool operator!=(const YVolume& other) const;
    /// Orders by the bytes of the unique paths, initialized or not.
    bool operator<(const YVolume& other) const;

private:
    KRT_HIDDEN void InitializeVariables();
    KRT_HIDDEN void CopyData(const YVolume& other);
    // As Initialize(path), from a discovery that describes several volumes.
    KRT_HIDDEN void Initialize(const Krt::File::YPath& path, Discovery& discovery);
    KRT_HIDDEN void LoadInfo(Discovery& discovery);
    friend class YVolumeManager;

    [[maybe_unused]] bool m_reserved = false;
    bool m_initialized = false; // set last, by Initialize
    Krt::File::YPath m_path;
    _tagVOL_INFO m_info;
};

} // namespace Backup::Volume
