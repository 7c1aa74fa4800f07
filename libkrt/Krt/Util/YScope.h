// Runs a function at the end of a scope.
#pragma once

#include "Krt/Export.h"

#include <boost/function.hpp>

namespace Krt::Util {

class KRT_API YScope
{
public:
    /// An empty function is allowed.
    explicit YScope(boost::function<void()> function);
    /// Runs the function if it is still set; what it raises is swallowed.
    ~YScope();
    YScope(const YScope&) = delete;
    YScope& operator=(const YScope&) = delete;

    /// Runs the function now, once; a nested or second call finds nothing to do.
    void Release();

private:
    boost::function<void()> m_function;
};

} // namespace Krt::Util
