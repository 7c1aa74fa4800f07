// Holes: the ranges of a file that have no blocks and read as zeros.
#pragma once

#include "Krt/Util/YUnxHandle.h"

#include <cstdint>

namespace Agent {

/// The offset at which the hole that contains `offset` ends. It is `offset` itself if there is data, if the
/// file ends there, and if the file system does not know.
std::uint64_t EndOfHole(const Krt::Util::YUnxHandle& file, std::uint64_t offset);

} // namespace Agent
