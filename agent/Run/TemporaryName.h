// The names of files that are renamed once they are complete.
#pragma once

#include "Krt/String/YString.h"

#include <string>

namespace Agent {

/// Returns the prefix followed by 16 random hexadecimal digits, so that no other process has or foresees the
/// name. Raises CryptoFailure.
Krt::YString TemporaryName(const std::string& prefix);

} // namespace Agent
