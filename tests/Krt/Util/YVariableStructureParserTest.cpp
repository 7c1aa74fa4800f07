#include "Krt/Util/YVariableStructureParser.h"

#include "Krt/Log/MessageType.h"
#include "testing/Raises.h"

using Krt::ErrorCode;
using Krt::MessageType;
using Krt::Util::YVariableStructureParser;

namespace {

// Offsets of the records of a walk.
std::vector<std::ptrdiff_t> Walk(YVariableStructureParser& parser, const std::string& data,
                                 unsigned int measure, bool fixedSize, bool bigEndian)
{
    // A copy of exact size, so that a read beyond it is noticed.
    const std::vector<char> bytes(data.begin(), data.end());
    parser.Initialize(measure, bytes.data(), static_cast<unsigned int>(bytes.size()), fixedSize, bigEndian);
    std::vector<std::ptrdiff_t> offsets;
    while (const void* record = parser.GetNextRecord())
        offsets.push_back(static_cast<const char*>(record) - bytes.data());
    return offsets;
}

std::string Record(unsigned int length, std::size_t size)
{
    std::string record(reinterpret_cast<const char*>(&length), sizeof(length));
    record.resize(size);
    return record;
}

} // namespace

TEST(YVariableStructureParser, FindsEachRecord)
{
    YVariableStructureParser parser;
    EXPECT_EQ(parser.GetNextRecord(), nullptr);
    const std::string twoRecords = Record(8, 8) + Record(16, 16);
    const std::string swapped{"\0\0\0\x08"
                              "1234",
                              8};
    using Offsets = std::vector<std::ptrdiff_t>;
    EXPECT_EQ(Walk(parser, twoRecords, 0, false, false), (Offsets{0, 8}));
    EXPECT_EQ(Walk(parser, "", 0, false, false), Offsets{});
    EXPECT_EQ(Walk(parser, swapped, 0, false, true), Offsets{0});
    EXPECT_EQ(Walk(parser, std::string(12, 'x'), 4, true, false), (Offsets{0, 4, 8}));
    // The length is at offset 4; four more bytes after the last record do not begin another one.
    EXPECT_EQ(Walk(parser, "head" + Record(8, 4) + "rest", 4, false, false), Offsets{0});
    EXPECT_EQ(parser.GetNextRecord(), nullptr);
}

TEST(YVariableStructureParser, DamagedRecordsAreRefused)
{
    YVariableStructureParser parser;
    EXPECT_RAISES_ON(Walk(parser, Record(8, 8) + Record(0, 8), 0, false, false), MessageType::Runtime,
                     ErrorCode::InvalidArgument, "Initialize", "");
    EXPECT_RAISES(Walk(parser, Record(8, 8) + Record(100, 8), 0, false, false), ErrorCode::InvalidArgument,
                  "Initialize", "Current offset 108 total data 16");
    EXPECT_RAISES(Walk(parser, Record(8, 8) + Record(0xFFFFFFF8, 8), 0, false, false),
                  ErrorCode::InvalidArgument, "Initialize", "Current offset 4294967296 total data 16");
    EXPECT_RAISES(Walk(parser, std::string(8, '\x01') + "\x02", 8, true, false), ErrorCode::InvalidArgument,
                  "Initialize", "Current offset 16 total data 9");
    // The length field of the last record is cut off.
    EXPECT_RAISES(Walk(parser, Record(8, 8) + "\x09", 0, false, false), ErrorCode::InvalidArgument,
                  "Initialize", "Current offset 17 total data 9");
    EXPECT_EQ(parser.GetNextRecord(), nullptr);
}
