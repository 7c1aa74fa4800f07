// A table of macros. In a text, ${name} stands for a value; an unknown name stays as written. No lock: filled
// by one thread, then read by any.
#pragma once

#include "Krt/String/YString.h"

#include <map>

namespace Krt::Util {

class KRT_API YMacroManager
{
public:
    /// Adds a macro; a second value for a key replaces the first.
    void Add(const YString& key, const YString& value);
    /// The text with each ${key} replaced; values are not expanded again.
    YString Expand(YString text) const;

private:
    std::map<YString, YString> m_macros;
};

} // namespace Krt::Util
