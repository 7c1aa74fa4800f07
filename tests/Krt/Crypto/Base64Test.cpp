#include "Krt/Crypto/Base64.h"

#include "testing/Raises.h"

using Krt::ErrorCode;
using Krt::Crypto::Base64DecodeData;
using Heap = Krt::Memory::YHeap<unsigned char>;

namespace {

std::string Decode(const char* text)
{
    const Heap bytes = Base64DecodeData(text);
    return bytes.Size() != 0 ? std::string(bytes.Cast<char>(), bytes.Size()) : std::string();
}

} // namespace

// fuzz/ compares accepted texts and results with a plain model.
TEST(Base64, InvalidTextIsRefused)
{
    EXPECT_EQ(Decode(" Zm\r\n9v\tZg =\n= "), "foof");
    const std::pair<const char*, const char*> cases[] = {
        {"Zm9*", "Unexpected Base64 character at offset 3"},
        {"Z===", "Unexpected Base64 character at offset 1"},
        {"Zm=v", "Unexpected Base64 character at offset 3"},
        {"Zg======", "Unexpected Base64 character at offset 4"},
        {"Zm9vZ", "Base64 text ends inside a group at offset 5"},
        {"Zh==", "Unexpected Base64 bits before offset 3"},
    };
    for (const auto& each : cases)
        EXPECT_RAISES(Decode(each.first), ErrorCode::InvalidArgument, "Base64DecodeData", each.second);
}
