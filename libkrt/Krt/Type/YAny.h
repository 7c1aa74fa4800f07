#pragma once

#include "Krt/Export.h"

#include <boost/any.hpp>

#include <typeinfo>
#include <utility>

namespace Krt::Type {

namespace Detail {
KRT_API void CheckCast(const boost::any* held, const char* wanted);
}

/// A value of any type, which can be read only as that type.
class YAny
{
public:
    YAny() = default;
    /// Stores the value as a T.
    template <class T>
    explicit YAny(T value) : m_value(std::move(value))
    {}

    /// Returns true if there is no value.
    bool IsEmpty() const { return m_value.empty(); }

    /// The value. Raises InvalidArgument "Unable to cast " if it is not a T. Types are compared by name, so
    /// that the check works across library boundaries.
    template <class T>
    T& Cast()
    {
        return Cast<T>(this);
    }
    /// The value of `*holder`, with the check of Cast(). Raises InvalidArgument for nullptr, too.
    template <class T>
    static T& Cast(YAny* holder)
    {
        Detail::CheckCast(holder ? &holder->m_value : nullptr, typeid(T).name());
        return *boost::unsafe_any_cast<T>(&holder->m_value);
    }

private:
    boost::any m_value;
};

} // namespace Krt::Type
