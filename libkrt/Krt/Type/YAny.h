// A holder of one value of any type, given back only as the type that it holds.
#pragma once

#include "Krt/Export.h"

#include <boost/any.hpp>

#include <typeinfo>
#include <utility>

namespace Krt::Type {

namespace Detail {
KRT_API void CheckCast(const boost::any* held, const char* wanted);
}

class YAny
{
public:
    YAny() = default;
    /// Holds the value, as the type that it has here.
    template <class T>
    explicit YAny(T value) : m_value(std::move(value))
    {}

    /// Whether nothing is held.
    bool IsEmpty() const { return m_value.empty(); }

    /// The held value; raises InvalidArgument "Unable to cast " if it is no T. Types are compared by name, so
    /// that the check holds across library boundaries.
    template <class T>
    T& Cast()
    {
        return Cast<T>(this);
    }
    /// The same; a null holder is a mismatch too.
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
