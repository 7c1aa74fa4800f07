#include "agent/Run/TemporaryName.h"

#include "Backup/Core/OpenSSL.h"

#include "Krt/String/Ascii.h"

#include <span>

namespace Agent {

Krt::YString TemporaryName(const std::string& prefix)
{
    Krt::Memory::YHeap<unsigned char> random = Backup::OpenSSL::RandomBytes(8);
    const unsigned char* const bytes = random;
    std::string name = prefix;
    Krt::String::AppendHex(name, std::span(bytes, random.Size()));
    return Krt::YString(std::move(name));
}

} // namespace Agent
