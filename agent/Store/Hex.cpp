#include "agent/Store/Hex.h"

#include "Backup/Core/OpenSSL.h"

#include "Krt/String/Ascii.h"

namespace Agent {

char* WriteHex(const unsigned char* bytes, std::size_t size, char* out)
{
    constexpr std::string_view Digits = Krt::String::HexDigits;
    for (std::size_t i = 0; i < size; ++i) {
        *out++ = Digits[bytes[i] >> 4];
        *out++ = Digits[bytes[i] & 15];
    }
    return out;
}

std::string RandomHex(int bytes)
{
    Krt::Memory::YHeap<unsigned char> random = Backup::OpenSSL::RandomBytes(bytes);
    std::string name(2 * random.Size(), '\0');
    WriteHex(random, random.Size(), name.data());
    return name;
}

} // namespace Agent
