// What the fuzz targets share. A target's function takes any bytes and returns 0; a finding is an end of the
// process, by a sanitizer, by an exception that leaves the function, or by Expect.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace Fuzz {

/// Ends the process with this text unless the condition holds.
inline void Expect(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "not so: %s\n", what);
    std::abort();
}

} // namespace Fuzz
