// Bodies of the templates of YValue and YObject, for the sources that instantiate them: YValue.cpp, and that
// of a class which brings conversions of its own.
#pragma once

#include "Krt/JSON/YValue.h"

#include <type_traits>

namespace Krt::JSON {

template <class T>
const T& YValue::Get() const
{
    if constexpr (std::is_same_v<T, YString>) {
        return AsString();
    } else if constexpr (std::is_same_v<T, YArray>) {
        return AsArray();
    } else if constexpr (std::is_same_v<T, YObject>) {
        if (!IsArray() || !AsArray().empty())
            return AsObject();
        m_cache = Type::YAny(YObject());
        return m_cache.Cast<YObject>();
    } else {
        if (m_cache.IsEmpty())
            m_cache = Type::YAny(Convert<T>());
        return m_cache.Cast<T>();
    }
}

template <class T>
const T& YObject::Get(const YString& key, unsigned int messageType) const
{
    try {
        return Find(key, messageType)->template Get<T>();
    } catch (const Exception::YError& error) {
        LogFailure(error, messageType);
        throw;
    }
}

} // namespace Krt::JSON
