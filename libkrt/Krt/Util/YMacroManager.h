#pragma once

#include "Krt/String/YString.h"

#include <map>

namespace Krt::Util {

/// A table of macros: ${name} in a text is replaced by a value; an unknown name is not changed. No lock:
/// one thread fills the table, then any number of threads read.
class KRT_API YMacroManager
{
public:
    /// Adds a macro, or replaces the value of `key`.
    void Add(const YString& key, const YString& value);
    /// Returns the text with each ${key} replaced; values are not expanded again.
    YString Expand(YString text) const;

private:
    std::map<YString, YString> m_macros;
};

} // namespace Krt::Util
