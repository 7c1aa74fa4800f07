#include "Krt/Crypto/Base64.h"

#include "testing/Raises.h"

using Krt::ErrorCode;
using Krt::YString;
using Krt::Crypto::Base64DecodeData;
using Krt::Crypto::Base64EncodeData;
using Heap = Krt::Memory::YHeap<unsigned char>;

namespace {

std::string Decode(const char* text)
{
    const Heap bytes = Base64DecodeData(text);
    return bytes.Size() != 0 ? std::string(bytes.Cast<char>(), bytes.Size()) : std::string();
}

} // namespace

TEST(Base64Test, WritesAndReadsEachLength)
{
    const std::pair<std::string, const char*> cases[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {std::string("\0\xFF\xFE\xFB", 4), "AP/++w=="}};
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(Base64EncodeData(Heap(bytes.data(), bytes.size())), text);
        EXPECT_EQ(Decode(text), bytes) << text;
    }
    EXPECT_EQ(Decode(" Zm\r\n9v\tZg =\n= "), "foof");
}

TEST(Base64Test, RefusesWhatNoEncoderWrites)
{
    const std::pair<const char*, const char*> cases[] = {
        {"Zm9*", "Unexpected Base64 character at offset 3"},
        {"Zm9-", "Unexpected Base64 character at offset 3"},
        {"\xC3\xA9==", "Unexpected Base64 character at offset 0"},
        {"Z===", "Unexpected Base64 character at offset 1"},
        {"Zm=v", "Unexpected Base64 character at offset 3"},
        {"Zg==Zm9v", "Unexpected Base64 character at offset 4"},
        {"Zg======", "Unexpected Base64 character at offset 4"},
        {"Zg=", "Base64 text ends inside a group at offset 3"},
        {"Zm9vZ", "Base64 text ends inside a group at offset 5"},
        {"Zh==", "Unexpected Base64 bits before offset 3"},
    };
    for (const auto& each : cases)
        EXPECT_RAISES(Decode(each.first), ErrorCode::InvalidArgument, "Base64DecodeData", each.second);
}
