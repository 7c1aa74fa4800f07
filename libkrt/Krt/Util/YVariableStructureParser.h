// Walks a run of records of one fixed length, or each with its length in itself, and hands out a pointer to
// each. All are found and checked before the first is handed out. The bytes are not owned and must outlive
// the parser, which one thread uses at a time.
#pragma once

#include "Krt/Export.h"

#include <vector>

namespace Krt::Util {

class KRT_API YVariableStructureParser
{
public:
    /// Walks `size` bytes at `data` and forgets an earlier walk. With `fixedSize` each record has
    /// `recordMeasure` bytes; otherwise a 32-bit length of the whole record stands at that offset inside it,
    /// in host order or, with `bigEndian`, with its bytes swapped. Up to `recordMeasure` bytes left over at
    /// the end are ignored then. Raises InvalidArgument on a length of 0 and on a record that runs past the
    /// end, with no record found.
    void Initialize(unsigned int recordMeasure, const void* data, unsigned int size, bool fixedSize,
                    bool bigEndian);

    /// The next record; null behind the last.
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
