// What a volume of any platform answers. A volume is destroyed as the class that it is, never through this
// one.
#pragma once

#include "Backup/Export.h"
#include "Krt/File/YPath.h"

namespace Backup::Volume {

// The order of the operations is part of the binary interface.
class BACKUP_API YVolumeBase
{
public:
    /// The unique path: the volume's identity.
    virtual operator Krt::File::YPath() const = 0;
    /// Back to the state of a volume that was never filled.
    virtual void Initialize() = 0;
    /// Fills the object from any path on the volume.
    virtual void Initialize(const Krt::File::YPath& path) = 0;
    /// The bits by which lists of volumes are masked.
    virtual unsigned int GetType() const = 0;
    /// Name of the file system's type.
    virtual YString GetFsType() const = 0;
    /// What the device says of itself.
    virtual YString GetBusType() const = 0;
    virtual YString GetVendor() const = 0;
    virtual YString GetProduct() const = 0;
    /// In bytes.
    virtual unsigned long long GetVolumeSize() const = 0;
    virtual unsigned long long GetVolumeFreeSpace() const = 0;
    /// Where the volume is mounted: at so many places, of which the primary one stands for all.
    virtual Krt::File::YPath GetMountPath(unsigned int index) const = 0;
    virtual unsigned int GetMountPathCount() const = 0;
    virtual Krt::File::YPath GetPrimaryMountPath() const = 0;
    /// In bytes.
    virtual unsigned int GetClusterSize() const = 0;
    /// What may be done with it.
    virtual bool IsReadOnly() const = 0;
    virtual bool IsAccessible() const = 0;
    virtual bool SupportsBackup() const = 0;
    virtual bool SupportsSnapshot() const = 0;
    virtual bool SupportsChangeJournal() const = 0;
    /// Text for people.
    virtual YString GetStringRepresentation() const = 0;

protected:
    YVolumeBase() = default;
    YVolumeBase(const YVolumeBase&) = default;
    YVolumeBase& operator=(const YVolumeBase&) = default;
    ~YVolumeBase() = default;
};

} // namespace Backup::Volume
