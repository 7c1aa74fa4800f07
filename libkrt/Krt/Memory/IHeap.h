// The size of an owned byte buffer, whatever its element type.
#pragma once

#include "Krt/Export.h"

namespace Krt::Memory {

class KRT_API IHeap
{
public:
    /// Bytes held.
    virtual unsigned long Size() const = 0;
    virtual ~IHeap() = default;
};

/// Told of every change of a heap's size, in bytes, before it takes place. A hook for statistics: this one
/// does nothing, and no heap depends on what it does. A program's own definition takes its place.
KRT_API void ReportHeapResize(unsigned long long oldSize, unsigned long long newSize);

} // namespace Krt::Memory
