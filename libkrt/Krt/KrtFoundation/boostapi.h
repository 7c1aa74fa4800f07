// The two ways in which Boost can fail in this code base, turned into YError. Nothing else calls a
// boost::function or converts a number with boost::numeric_cast.
#pragma once

#include "Krt/Exception/YError.h"

#include <boost/function.hpp>
#include <boost/numeric/conversion/cast.hpp>

#include <utility>

namespace Krt {

/// Throws the YError for an exception that Boost raised.
[[noreturn, gnu::cold]] KRT_API void ThrowBoostFailure(const std::exception& failure);

/// Calls the function; an empty one raises "call to empty boost::function". What the function itself raises
/// passes through.
template <class R, class... Params, class... Args>
R CallFunction(const boost::function<R(Params...)>& function, Args&&... args)
{
    if (function.empty()) [[unlikely]]
        ThrowBoostFailure(boost::bad_function_call());
    return function(std::forward<Args>(args)...);
}

/// The value as a To, or "bad numeric conversion: positive overflow" or "... negative overflow".
template <class To, class From>
To NumericCast(From value)
{
    try {
        return boost::numeric_cast<To>(value);
    } catch (const boost::numeric::bad_numeric_cast& failure) {
        ThrowBoostFailure(failure);
    }
}

} // namespace Krt
