// The unit file of a service: its name and its text. What isn't to be had is refused with InvalidArgument.
#pragma once

#include "Backup/Export.h"

#include "Krt/File/YPath.h"

#include <vector>

namespace Backup::Util {

/// "NAME.service". Refused unless that is the legal name of a unit that can be started.
YString GetServiceUnitName(const YString& name);

/// The whole file, for a service that starts with the machine and is started again whenever it ends. Program
/// and arguments reach the process byte for byte, whatever stands in them. Refused are a program that isn't
/// an absolute path, or has control characters, quotation marks or backslashes in it, which systemd takes in
/// no form, and an argument with a NUL byte. `title` is one line of UTF-8: control characters become blanks,
/// and InvalidUtf8 is raised for what is no text.
YString MakeServiceUnit(const YString& title, const Krt::File::YPath& program,
                        const std::vector<YString>& arguments);

} // namespace Backup::Util
