#pragma once

/// @file
/// The name and the text of a service's unit file. Values that a unit cannot contain raise InvalidArgument.

#include "Backup/Export.h"

#include "Krt/File/YPath.h"

#include <vector>

namespace Backup::Util {

/// Returns "NAME.service". Raises InvalidArgument unless it is a valid name of a unit that can be started.
YString GetServiceUnitName(const YString& name);

/// Returns the whole file, for a service that starts with the machine and is restarted whenever it ends.
/// Program and arguments reach the process byte for byte. `title` is one line of UTF-8, in which control
/// characters become blanks.
/// - Raises InvalidArgument for a program that is not an absolute path.
/// - Raises InvalidArgument for a program with control characters, quotation marks or backslashes, which
///   systemd does not accept in any form.
/// - Raises InvalidArgument for an argument with a NUL byte.
/// - Raises InvalidUtf8 for a title that is not valid UTF-8.
YString MakeServiceUnit(const YString& title, const Krt::File::YPath& program,
                        const std::vector<YString>& arguments);

} // namespace Backup::Util
