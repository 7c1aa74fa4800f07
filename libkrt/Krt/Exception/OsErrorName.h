#pragma once

/// @file
/// The names of the operating system's error numbers.

namespace Krt::Exception {

/// Returns the number's name, such as "ENOENT", or an empty text for an unknown number. If a number has
/// several names, returns the first in POSIX's list.
const char* OsErrorName(int osError);

} // namespace Krt::Exception
