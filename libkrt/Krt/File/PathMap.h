#pragma once

/// @file
/// Well-known directories by number.

#include "Krt/File/YPath.h"

namespace Krt::File {

/// The directory of temporary files.
constexpr unsigned int TemporaryFiles = 5;

/// Returns the directory, which need not exist. For TemporaryFiles it is $TMPDIR if that is absolute and
/// the process is not privilege-raised, otherwise /tmp. Raises InvalidArgument for another number.
KRT_API YPath GetPathMap(unsigned int index);

} // namespace Krt::File
