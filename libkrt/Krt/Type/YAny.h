// A holder of one value of any type, given back only as the type that it holds.
#pragma once

#include "Krt/Export.h"

#include <boost/any.hpp>

#include <cstring>
#include <typeinfo>
#include <utility>

namespace Krt::Type {

namespace Detail {
[[noreturn, gnu::cold]] KRT_API void RaiseCast();
}

class YAny
{
public:
    YAny() = default;
    template <class T>
    explicit YAny(T value) : m_value(std::move(value))
    {
    }

    bool IsEmpty() const { return m_value.empty(); }

    /// The held value; raises InvalidArgument "Unable to cast " if it is no T. Types are compared by name, so
    /// that the check holds across library boundaries.
    template <class T>
    T& Cast()
    {
        if (std::strcmp(m_value.type().name(), typeid(T).name()) != 0)
            Detail::RaiseCast();
        return *boost::unsafe_any_cast<T>(&m_value);
    }

private:
    boost::any m_value;
};

} // namespace Krt::Type
