// Which loaded file an address belongs to. Asked for each frame of each error, so it has to be cheap.
#pragma once

#include <cstdint>

namespace Krt::Exception {

struct Module
{
    const char* path = nullptr; ///< null if no module holds the address
    std::uintptr_t base = 0;    ///< what offsets into the file count from
};

Module FindModule(std::uintptr_t address);

} // namespace Krt::Exception
