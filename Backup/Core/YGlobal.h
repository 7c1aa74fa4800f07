// The one process-wide object of the library: the macro table with which configured paths are expanded, and
// the list of the machine's volumes.
#pragma once

#include "Backup/Export.h"
#include "Backup/Volume/Unix/YVolumeManager.h"
#include "Krt/Thread/YMutex.h"
#include "Krt/Util/YMacroManager.h"

#include <boost/shared_ptr.hpp>

namespace Backup {

/// The part of the object that needs no volumes.
class BACKUP_API YGlobalBase
{
public:
    /// Raises MutexInitFailed. The macro table begins empty.
    YGlobalBase();
    YGlobalBase(const YGlobalBase&) = delete;
    YGlobalBase& operator=(const YGlobalBase&) = delete;

    /// Fills the macro table with the product's names.
    virtual void Initialize();
    /// The counterpart, for objects that add to this one; there is nothing to undo here.
    virtual void Deinitialize();

    /// For whoever changes the macro table while other threads use it; the library itself only reads the
    /// table, and takes no lock.
    const boost::shared_ptr<Krt::Thread::YMutexInternal>& GetMutex() const { return m_mutex; }
    /// The macro table, owned by this object.
    Krt::Util::YMacroManager& GetMacros() { return m_macros; }

protected:
    ~YGlobalBase() = default;

    boost::shared_ptr<Krt::Thread::YMutexInternal> m_mutex; ///< what GetMutex gives
    Krt::Util::YMacroManager m_macros;                      ///< what GetMacros gives
};

class BACKUP_API YGlobal final : public YGlobalBase
{
public:
    /// The same; volumes are looked for when first asked about.
    void Initialize() override;

    /// Has a lock of its own.
    Volume::YVolumeManager& GetVolumeManager() { return m_volumeManager; }

private:
    Volume::YVolumeManager m_volumeManager;
};

/// The process's object, made at the first call and not initialised by it; the same one until DestroyGlobal.
/// The first call comes from one thread, before others start. Raises MutexInitFailed; the next call tries
/// again.
BACKUP_API YGlobal* GetGlobal();
/// Destroys the object; does nothing if there is none. No other thread may use it.
BACKUP_API void DestroyGlobal();

} // namespace Backup
