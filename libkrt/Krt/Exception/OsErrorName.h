// The names of operating-system error numbers.
#pragma once

namespace Krt::Exception {

/// The number's name, such as "ENOENT"; empty for a number that has none here. Of several names of one number
/// the first of POSIX's list.
const char* OsErrorName(int osError);

} // namespace Krt::Exception
