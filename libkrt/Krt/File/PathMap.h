// Well-known directories by number.
#pragma once

#include "Krt/File/YPath.h"

namespace Krt::File {

/// For temporary files.
constexpr unsigned int TemporaryFiles = 5;

/// The directory, which isn't looked for:
///   TemporaryFiles   what $TMPDIR names if that is absolute and the process isn't privilege-raised, or /tmp
/// Another number raises InvalidArgument.
KRT_API YPath GetPathMap(unsigned int index);

} // namespace Krt::File
