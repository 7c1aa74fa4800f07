#pragma once

#include "Krt/Export.h"

namespace Krt::Memory {

/// The interface of an owned byte buffer, whatever its element type.
class KRT_API IHeap
{
public:
    /// The size in bytes.
    virtual unsigned long Size() const = 0;
    virtual ~IHeap() = default;
};

/// Called before each change of a heap's size, with both sizes in bytes. A hook for statistics, which does
/// nothing by default. A program may replace it by its own definition; heaps do not depend on its effects.
KRT_API void ReportHeapResize(unsigned long long oldSize, unsigned long long newSize);

} // namespace Krt::Memory
