#pragma once

/// @file
/// The two operations of Boost that can fail in this code base, with YErrors as failures. Only this file
/// calls a boost::function or boost::numeric_cast.

#include "Krt/Exception/YError.h"

#include <boost/function.hpp>
#include <boost/numeric/conversion/cast.hpp>

#include <utility>

namespace Krt {

/// Throws the YError for an exception of Boost.
[[noreturn, gnu::cold]] KRT_API void ThrowBoostFailure(const std::exception& failure);

/// Calls the function. Raises "call to empty boost::function" if it is empty. Exceptions of the function
/// are passed on.
template <class R, class... Params, class... Args>
R CallFunction(const boost::function<R(Params...)>& function, Args&&... args)
{
    if (function.empty()) [[unlikely]]
        ThrowBoostFailure(boost::bad_function_call());
    return function(std::forward<Args>(args)...);
}

/// Returns the value as a To. Raises "bad numeric conversion: positive overflow" or "... negative
/// overflow".
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
