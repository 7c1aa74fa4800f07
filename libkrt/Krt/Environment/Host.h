#pragma once

/// @file
/// The machine's name, and process-wide settings of the operating system.

#include "Krt/String/YString.h"

namespace Krt::Environment {

/// Returns the machine's name. Raises the operating system's error.
KRT_API YString GetHostName();
/// Sets the permission bits that are cleared in new files and directories. Returns the former mask.
KRT_API unsigned int SetFileCreationMask(unsigned int mask);
/// Increases the limit of open files to the hard limit. A limit that cannot be set stays unchanged. Raises
/// the operating system's error if it cannot be read.
KRT_API void RaiseDescriptorLimit();

} // namespace Krt::Environment
