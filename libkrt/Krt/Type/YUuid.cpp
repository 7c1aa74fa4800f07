#include "Krt/Type/YUuid.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/RandomGenerator.h"

#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <algorithm>
#include <sstream>

namespace Krt::Type {

YUuid YUuid::Random()
{
    Bytes bytes;
    {
        const auto lock = Util::LockRandomGenerator();
        std::mt19937_64& generator = Util::GetRandomGenerator();
        for (std::size_t i = 0; i < bytes.size(); i += 8) {
            const unsigned long long draw = generator();
            for (unsigned int byte = 0; byte < 8; ++byte)
                bytes[i + byte] = static_cast<unsigned char>(draw >> (8 * byte));
        }
    }
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80); // the variant of RFC 4122
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40); // version 4
    return YUuid(bytes);
}

YString YUuid::GetString() const
{
    boost::uuids::uuid uuid;
    std::copy(m_bytes.begin(), m_bytes.end(), uuid.begin());
    std::ostringstream stream;
    stream << uuid;
    KRT_RAISE_UNLESS(!stream.fail(), ErrorCode::InvalidState, "Failed to convert uuid to stirng ");
    return YString(std::move(stream).str());
}

} // namespace Krt::Type
