#include "Krt/Type/YAny.h"

#include "Krt/Exception/Raise.h"

#include <cstring>

namespace Krt::Type::Detail {

void CheckCast(const boost::any* held, const char* wanted)
{
    if (!held || std::strcmp(held->type().name(), wanted) != 0) [[unlikely]]
        KRT_RAISE_AS("Cast", MessageType::Runtime, ErrorCode::InvalidArgument, "Unable to cast ");
}

} // namespace Krt::Type::Detail
