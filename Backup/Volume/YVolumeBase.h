#pragma once

#include "Backup/Export.h"
#include "Krt/File/YPath.h"

namespace Backup::Volume {

/// The interface of a volume on any platform. A volume is destroyed through its own class, never through
/// this one. The order of the operations is part of the binary interface.
class BACKUP_API YVolumeBase
{
public:
    /// Converts to the unique path, which is the volume's identity.
    virtual operator Krt::File::YPath() const = 0;
    /// Resets to the state of a volume that was never filled.
    virtual void Initialize() = 0;
    /// Fills the object from any path on the volume.
    virtual void Initialize(const Krt::File::YPath& path) = 0;
    /// The bits by which lists of volumes are masked.
    virtual unsigned int GetType() const = 0;
    /// The name of the file system's type.
    virtual YString GetFsType() const = 0;
    /// The bus that connects the device.
    virtual YString GetBusType() const = 0;
    /// The vendor that the device reports.
    virtual YString GetVendor() const = 0;
    /// The product name that the device reports.
    virtual YString GetProduct() const = 0;
    /// The volume's size in bytes.
    virtual unsigned long long GetVolumeSize() const = 0;
    /// The volume's free space in bytes.
    virtual unsigned long long GetVolumeFreeSpace() const = 0;
    /// The mount path at `index`, which is below GetMountPathCount().
    virtual Krt::File::YPath GetMountPath(unsigned int index) const = 0;
    /// The number of mount paths.
    virtual unsigned int GetMountPathCount() const = 0;
    /// The mount path that represents all of them.
    virtual Krt::File::YPath GetPrimaryMountPath() const = 0;
    /// The size of an allocation unit in bytes.
    virtual unsigned int GetClusterSize() const = 0;
    /// Returns true if the volume cannot be written.
    virtual bool IsReadOnly() const = 0;
    /// Returns true if the volume can be read.
    virtual bool IsAccessible() const = 0;
    /// Returns true if the volume can be backed up.
    virtual bool SupportsBackup() const = 0;
    /// Returns true if the volume can take snapshots.
    virtual bool SupportsSnapshot() const = 0;
    /// Returns true if the volume has a change journal.
    virtual bool SupportsChangeJournal() const = 0;
    /// A text for users.
    virtual YString GetStringRepresentation() const = 0;

protected:
    YVolumeBase() = default;
    YVolumeBase(const YVolumeBase&) = default;
    YVolumeBase& operator=(const YVolumeBase&) = default;
    ~YVolumeBase() = default;
};

} // namespace Backup::Volume
