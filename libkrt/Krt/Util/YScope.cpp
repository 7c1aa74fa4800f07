#include "Krt/Util/YScope.h"

#include "Krt/KrtFoundation/boostapi.h"

#include <utility>

namespace Krt::Util {

YScope::YScope(boost::function<void()> function) : m_function(std::move(function)) {}

YScope::~YScope()
{
    try {
        Release();
    } catch (...) {
        // It may run while another exception is propagated.
    }
}

void YScope::Release()
{
    boost::function<void()> function;
    function.swap(m_function);
    if (!function.empty())
        CallFunction(function);
}

} // namespace Krt::Util
