// Small files with one text, as users write them with an editor: a location or a password.
#pragma once

#include "agent/Repository/Secret.h"

#include <string>

namespace Agent {

/// Bytes of a text that is read, at most.
constexpr std::size_t TextLimit = 1 << 16;

/// The text of the file as UTF-8, without white space at its ends. UTF-16 with a byte order mark is
/// converted; a mark of UTF-8 is dropped. Raises the operating system's error, and InvalidArgument for more
/// than TextLimit bytes or for damaged UTF-16.
Repo::Secret ReadTextFile(const std::string& path);

/// The text in these bytes, which are overwritten. See ReadTextFile; `name` begins messages.
Repo::Secret TextOf(Repo::Bytes& bytes, const std::string& name);

} // namespace Agent
