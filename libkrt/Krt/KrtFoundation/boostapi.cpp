#include "Krt/KrtFoundation/boostapi.h"

namespace Krt {

void ThrowBoostFailure(const std::exception& failure)
{
    // A fixed place: the failing call stands in a template of any program's source.
    throw Exception::TranslateYError(failure, MessageType::General, 12, "Krt/KrtFoundation/boostapi",
                                     "throw_exception", YString());
}

} // namespace Krt
