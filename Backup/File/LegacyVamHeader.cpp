#include "Backup/File/LegacyVamHeader.h"

#include "Krt/Crypto/Base64.h"
#include "Krt/Log/MessageType.h"

#include <string>

namespace Backup::File::LegacyVamHeader {

using Krt::YString;
using Bytes = Krt::Memory::YHeap<unsigned char>;

std::optional<Bytes> Extract(const Krt::JSON::YObject& json)
{
    constexpr const char* Key = "legacy_metadata";
    if (!json.FindOpt(Key))
        return std::nullopt;
    return Krt::Crypto::Base64DecodeData(json.Get<YString>(Key, Krt::MessageType::Runtime));
}

YString FindDamage(const Bytes& bytes, const Kind& kind)
{
    if (bytes.Size() < sizeof(_tagBASE_HDR))
        return "Invalid legacy metadata: Buffer too small to contain a BASE_HDR";
    const auto invalid = [&kind](const std::string& reason) {
        return YString(std::string("Invalid legacy ") + kind.system + " metadata: " + reason);
    };
    const unsigned int type = bytes.Cast<_tagBASE_HDR>()->type;
    if (type != kind.type)
        return invalid("Expected type " + std::to_string(kind.type) + " but actual type is " +
                       std::to_string(type));
    if (bytes.Size() < kind.minimum)
        return invalid(std::string("Buffer too small to contain a ") + kind.header);
    return {};
}

} // namespace Backup::File::LegacyVamHeader
