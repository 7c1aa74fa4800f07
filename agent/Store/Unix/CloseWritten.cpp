#include "agent/Store/Durable.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/OpenHandle.h"

namespace Agent {

void CloseWritten(Krt::Util::YUnxHandle& file)
{
    if (!Krt::Util::CloseWritten(file))
        KRT_RAISE_OS("Failed to write file");
}

} // namespace Agent
