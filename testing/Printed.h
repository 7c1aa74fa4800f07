// Returns the text that a value prints into a stream of the library.
#pragma once

#include "Krt/Log/YStream.h"

#include <string>

namespace Testing {

template <class Value>
std::string Printed(const Value& value)
{
    Krt::YStream stream{Krt::YString()};
    stream << value;
    return Krt::YString(stream).Bytes();
}

} // namespace Testing
