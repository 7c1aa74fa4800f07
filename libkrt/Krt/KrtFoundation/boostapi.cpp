#include "Krt/KrtFoundation/boostapi.h"

namespace Krt {

void ThrowBoostFailure(const std::exception& failure)
{
    // The source location is fixed, since the failing call may be in a template of any program's source.
    throw Exception::TranslateYError(failure, MessageType::General, 12, "Krt/KrtFoundation/boostapi",
                                     "throw_exception", YString());
}

} // namespace Krt
