#pragma once

#include "Backup/Export.h"
#include "Backup/Volume/Unix/YVolumeManager.h"
#include "Krt/Thread/YMutex.h"
#include "Krt/Util/YMacroManager.h"

#include <boost/shared_ptr.hpp>

namespace Backup {

/// The part of the process-wide object that does not depend on volumes.
class BACKUP_API YGlobalBase
{
public:
    /// Raises MutexInitFailed. The macro table begins empty.
    YGlobalBase();
    YGlobalBase(const YGlobalBase&) = delete;
    YGlobalBase& operator=(const YGlobalBase&) = delete;

    /// Adds the product's names to the macro table.
    virtual void Initialize();
    /// The counterpart of Initialize, for derived classes; does nothing here.
    virtual void Deinitialize();

    /// A mutex for callers that change the macro table while other threads use it. The library itself only
    /// reads the table and does not lock the mutex.
    const boost::shared_ptr<Krt::Thread::YMutexInternal>& GetMutex() const { return m_mutex; }
    /// The macro table, owned by this object.
    Krt::Util::YMacroManager& GetMacros() { return m_macros; }

protected:
    ~YGlobalBase() = default;

    boost::shared_ptr<Krt::Thread::YMutexInternal> m_mutex; ///< returned by GetMutex
    Krt::Util::YMacroManager m_macros;                      ///< returned by GetMacros
};

/// The process-wide object of the library: the macro table with which configured paths are expanded, and
/// the list of the machine's volumes.
class BACKUP_API YGlobal final : public YGlobalBase
{
public:
    /// Initializes the base; volumes are discovered at the first query.
    void Initialize() override;

    /// The list of volumes, owned by this object. Any thread may use it.
    Volume::YVolumeManager& GetVolumeManager() { return m_volumeManager; }

private:
    Volume::YVolumeManager m_volumeManager;
};

/// Returns the process-wide object, which the first call creates, without initializing it. It exists until
/// DestroyGlobal. One thread makes the first call, before other threads start. Raises MutexInitFailed; the
/// next call tries again.
BACKUP_API YGlobal* GetGlobal();
/// Destroys the process-wide object; does nothing if it does not exist. No other thread may use it.
BACKUP_API void DestroyGlobal();

} // namespace Backup
