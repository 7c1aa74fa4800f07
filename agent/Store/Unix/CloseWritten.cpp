#include "agent/Store/Durable.h"

#include "Krt/Exception/Raise.h"

#include <unistd.h>

namespace Agent {

void CloseWritten(Krt::Util::YUnxHandle& file)
{
    // An interrupted close has let go of the descriptor all the same, and says nothing of the data.
    if (close(file.Release()) != 0 && errno != EINTR)
        KRT_RAISE_OS("Failed to write file");
}

} // namespace Agent
