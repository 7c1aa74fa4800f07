#include "Krt/Memory/IHeap.h"

namespace Krt::Memory {

// In a source of its own, for no compiler to know at the calls that nothing happens here: a program may
// define the hook itself.
void ReportHeapResize(unsigned long long, unsigned long long) {}

} // namespace Krt::Memory
