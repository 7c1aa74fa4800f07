#pragma once

#include "Krt/Export.h"

#include <boost/function.hpp>

namespace Krt::Util {

/// Runs a function at the end of a scope.
class KRT_API YScope
{
public:
    /// `function` may be empty.
    explicit YScope(boost::function<void()> function);
    /// Runs the function if it has not run yet; ignores its exceptions.
    ~YScope();
    YScope(const YScope&) = delete;
    YScope& operator=(const YScope&) = delete;

    /// Runs the function now; a nested or second call does nothing. Exceptions are passed on.
    void Release();

private:
    boost::function<void()> m_function;
};

} // namespace Krt::Util
