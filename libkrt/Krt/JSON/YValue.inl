#pragma once

/// @file
/// Definitions of the templates of YValue and YObject, for the sources that instantiate them: YValue.cpp, and
/// that of a class with conversions of its own.

#include "Krt/JSON/SharedBlock.h"
#include "Krt/JSON/YValue.h"

#include <type_traits>

namespace Krt::JSON {

template <class T, class Source>
boost::shared_ptr<YValue> YValue::Share(Source&& content)
{
    return SharedBlock<YValue>::Make(Passkey(), std::in_place_type<T>, std::forward<Source>(content));
}

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
        return Type::YAny::Cast<YObject>(std::get_if<Type::YAny>(&m_cache));
    } else if constexpr (std::is_arithmetic_v<T>) {
        if (std::holds_alternative<std::monostate>(m_cache))
            m_cache = Convert<T>();
        if (const T* number = std::get_if<T>(&m_cache))
            return *number;
        return Type::YAny::Cast<T>(std::get_if<Type::YAny>(&m_cache)); // raises
    } else {
        if (std::holds_alternative<std::monostate>(m_cache))
            m_cache = Type::YAny(Convert<T>());
        return Type::YAny::Cast<T>(std::get_if<Type::YAny>(&m_cache));
    }
}

template <class T>
const T& YObject::Get(Key key, unsigned int messageType) const
{
    try {
        return Find(key, messageType)->template Get<T>();
    } catch (const Exception::YError& error) {
        LogFailure(error, messageType);
        throw;
    }
}

} // namespace Krt::JSON
