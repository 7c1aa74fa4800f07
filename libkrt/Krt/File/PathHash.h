#pragma once

/// @file
/// The hash of a path, for Boost's hashed containers.

#include "Krt/File/YPath.h"

#include <boost/container_hash/hash.hpp>

#include <cstddef>

namespace Krt::File {

/// Hashes the bytes of the text, so that equal paths have equal hashes. boost::hash calls it.
inline std::size_t hash_value(const YPath& path)
{
    return boost::hash_range(path.Bytes().begin(), path.Bytes().end());
}

} // namespace Krt::File
