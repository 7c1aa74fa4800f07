#pragma once

/// @file
/// The loaded file that contains an address. Looked up for each frame of each error, so it must be fast.

#include <cstdint>

namespace Krt::Exception {

/// A loaded file.
struct Module
{
    const char* path = nullptr; ///< nullptr if no module contains the address
    std::uintptr_t base = 0;    ///< base address of offsets into the file
};

/// Returns the module that contains `address`.
Module FindModule(std::uintptr_t address);

} // namespace Krt::Exception
