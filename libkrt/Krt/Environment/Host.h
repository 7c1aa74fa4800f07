// The machine's name, and the settings of the operating system that hold for the whole process.
#pragma once

#include "Krt/String/YString.h"

namespace Krt::Environment {

/// Raises the operating system's error.
KRT_API YString GetHostName();
/// The permission bits that new files and directories do without; returns the former ones.
KRT_API unsigned int SetFileCreationMask(unsigned int mask);
/// Lets the process open as many files as the administrator allows it at most.
KRT_API void RaiseDescriptorLimit();
/// Whether the process acts as root.
KRT_API bool IsRoot();

} // namespace Krt::Environment
