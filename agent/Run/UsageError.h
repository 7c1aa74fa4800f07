// UsageError: the arguments or the environment ask for something that can't be done.
#pragma once

#include <stdexcept>

namespace Agent {

/// Options that are each right and can't be given together, or that are missing. The exit code becomes 2.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace Agent
