#include "Krt/Util/YVariableStructureParser.h"

#include "Krt/Debug/Debugger.h"
#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Krt::Util {

namespace {

// If the end of the data cuts a field short, its missing bytes count as 0.
unsigned int ReadLength(const unsigned char* field, std::size_t available, bool bigEndian)
{
    unsigned int length = 0;
    std::memcpy(&length, field, std::min(available, sizeof(length)));
    return bigEndian ? __builtin_bswap32(length) : length;
}

} // namespace

void YVariableStructureParser::Initialize(unsigned int recordMeasure, const void* data, unsigned int size,
                                          bool fixedSize, bool bigEndian)
{
    m_nextIndex = 0;
    m_records.clear();

    const auto* const bytes = static_cast<const unsigned char*>(data);
    const unsigned int reserve = fixedSize ? 0 : recordMeasure;
    std::vector<const void*> records;
    // In 64 bits, so that a length near 4 GiB can't wrap around into the data.
    unsigned long long offset = 0;
    while (reserve + offset < size) {
        records.push_back(bytes + offset);
        const unsigned long long field = offset + reserve;
        const unsigned int length =
            fixedSize ? recordMeasure : ReadLength(bytes + field, size - field, bigEndian);
        if (length == 0)
            KRT_RAISE_ON(MessageType::Runtime, ErrorCode::InvalidArgument);
        offset += length;
    }
    if (offset > size) {
        Debug::EnterDebugger();
        KRT_RAISE(ErrorCode::InvalidArgument, "Current offset " << offset << " total data " << size);
    }
    m_records = std::move(records);
}

} // namespace Krt::Util
