// The start of a log line: thread id, a blank, the name of the speaking class or channel, and ": ".
#pragma once

#include "Krt/String/YString.h"

#include <typeinfo>

namespace Krt::Util {
/// A channel name as a token: each word with an upper first letter, blanks and punctuation dropped.
KRT_API YString Camelify(const YString& name);
/// The class's unmangled name without namespaces, template arguments kept.
KRT_API YString GetClassNameFromTypeInfo(const std::type_info& type);
} // namespace Krt::Util

namespace Krt::Log {

namespace Detail {
KRT_API YString PrefixOfName(const YString& name) noexcept;
KRT_API YString PrefixOfClass(const std::type_info& type) noexcept;
} // namespace Detail

/// Of the object's dynamic class where it has virtual functions; of the text itself for a YString. "RTTI
/// ERROR" if the prefix can't be made.
template <class T>
YString GetLogPrefix(const T& object)
{
    return Detail::PrefixOfClass(typeid(object));
}
template <>
inline YString GetLogPrefix<YString>(const YString& name)
{
    return Detail::PrefixOfName(name);
}

} // namespace Krt::Log
