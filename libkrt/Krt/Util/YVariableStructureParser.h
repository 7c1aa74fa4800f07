#pragma once

#include "Krt/Export.h"

#include <vector>

namespace Krt::Util {

/// Iterates over a sequence of elements of one fixed length, or with a length field in each. All elements
/// are located and checked before the first is returned. The bytes are not owned and must outlive the
/// parser. One thread at a time.
class KRT_API YVariableStructureParser
{
public:
    /// Locates the elements in `size` bytes at `data` and restarts the iteration. Raises InvalidArgument
    /// for a length of 0 and for an element that extends past the end; there are no elements then.
    /// - With `fixedSize` each element has `recordMeasure` bytes.
    /// - Otherwise `recordMeasure` is the offset of a 32-bit field with the length of the whole element, in
    ///   host order or, with `bigEndian`, with its bytes swapped. Up to `recordMeasure` trailing bytes are
    ///   ignored.
    void Initialize(unsigned int recordMeasure, const void* data, unsigned int size, bool fixedSize,
                    bool bigEndian);

    /// Returns the next element, or nullptr after the last one.
    const void* GetNextRecord()
    {
        const unsigned int index = m_nextIndex++;
        return index < m_records.size() ? m_records[index] : nullptr;
    }

private:
    unsigned int m_nextIndex = 0;
    std::vector<const void*> m_records;
};

} // namespace Krt::Util
