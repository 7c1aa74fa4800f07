#pragma once

/// @file
/// The prefix of a log line: thread ID, a blank, the name of a class or channel, and ": ".

#include "Krt/String/YString.h"

#include <typeinfo>

namespace Krt::Util {
/// Returns a channel name as a token: the first letter of each word in upper case, without blanks and
/// punctuation.
KRT_API YString Camelify(const YString& name);
/// Returns the demangled name of the class without namespaces, but with template arguments.
KRT_API YString GetClassNameFromTypeInfo(const std::type_info& type);
} // namespace Krt::Util

namespace Krt::Log {

namespace Detail {
KRT_API YString PrefixOfName(const YString& name) noexcept;
KRT_API YString PrefixOfClass(const std::type_info& type) noexcept;
} // namespace Detail

/// Returns the prefix with the name of the object's dynamic class, or with the text itself for a YString.
/// "RTTI ERROR" if the prefix cannot be created.
template <class T>
YString GetLogPrefix(const T& object)
{
    return Detail::PrefixOfClass(typeid(object));
}
/// Returns the prefix with the text `name`.
template <>
inline YString GetLogPrefix<YString>(const YString& name)
{
    return Detail::PrefixOfName(name);
}

} // namespace Krt::Log
