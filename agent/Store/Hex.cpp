#include "agent/Store/Hex.h"

#include "Backup/Core/OpenSSL.h"

namespace Agent {

char* WriteHex(const unsigned char* bytes, std::size_t size, char* out)
{
    static constexpr char Digits[] = "0123456789abcdef";
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
