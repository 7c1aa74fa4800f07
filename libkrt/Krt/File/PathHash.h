// Lets Boost's hashed containers have paths for keys.
#pragma once

#include "Krt/File/YPath.h"

#include <boost/container_hash/hash.hpp>

#include <cstddef>

namespace Krt::File {

/// Of the text's bytes, so that equal paths have equal values. Found by boost::hash.
inline std::size_t hash_value(const YPath& path)
{
    return boost::hash_range(path.Bytes().begin(), path.Bytes().end());
}

} // namespace Krt::File
