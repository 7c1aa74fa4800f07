#include "Krt/Exception/Unix/Module.h"

#include <dlfcn.h>
#include <errno.h>
#include <link.h>

namespace Krt::Exception {

// Uses the C library's table for unwinding: unlike dladdr, this takes no lock and searches for no symbol.
Module FindModule(std::uintptr_t address)
{
    dl_find_object object;
    if (_dl_find_object(reinterpret_cast<void*>(address), &object) != 0)
        return Module();
    // The program itself has no name in the list of modules.
    const link_map& map = *object.dlfo_link_map;
    return {*map.l_name != '\0' ? map.l_name : program_invocation_name, map.l_addr};
}

} // namespace Krt::Exception
