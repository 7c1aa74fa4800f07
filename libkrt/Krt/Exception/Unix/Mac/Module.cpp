#include "Krt/Exception/Unix/Module.h"

#include <dlfcn.h>

namespace Krt::Exception {

Module FindModule(std::uintptr_t address)
{
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(address), &info) == 0)
        return Module();
    return {info.dli_fname, reinterpret_cast<std::uintptr_t>(info.dli_fbase)};
}

} // namespace Krt::Exception
