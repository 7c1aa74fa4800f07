#include "Backup/Core/YGlobal.h"

#include <boost/make_shared.hpp>

#include <memory>
#include <utility>

namespace Backup {

namespace {

std::unique_ptr<YGlobal> g_globalData;

} // namespace

YGlobalBase::YGlobalBase() : m_mutex(boost::make_shared<Krt::Thread::YMutexInternal>(0)) {}

void YGlobalBase::Initialize()
{
    m_macros.Add("product", "Kestrelon Backup Agent");
    m_macros.Add("mfg", "Kestrelon Networks, Inc.");
    m_macros.Add("mfgRegistry", "Kestrelon Networks, Inc.");
    m_macros.Add("serviceName", "kbagent");
    m_macros.Add("mfgShort", "Kestrelon");
}

void YGlobalBase::Deinitialize() {}

void YGlobal::Initialize()
{
    YGlobalBase::Initialize();
}

YGlobal* GetGlobal()
{
    if (!g_globalData)
        g_globalData = std::make_unique<YGlobal>();
    return g_globalData.get();
}

void DestroyGlobal()
{
    // The variable is cleared first, so that what the destructor calls finds no global object.
    const std::unique_ptr<YGlobal> global = std::move(g_globalData);
}

} // namespace Backup
