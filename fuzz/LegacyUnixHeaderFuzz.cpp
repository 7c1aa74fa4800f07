#include "fuzz/LegacyRecord.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz::ConvertLegacyHeader("unix", data, size);
    return 0;
}
