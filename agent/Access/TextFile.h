// Small files that users write with an editor: a location, a password, or a list of patterns.
#pragma once

#include "agent/Repository/Secret.h"

#include <string>

namespace Agent {

/// Bytes of a location or a password that is read, at most.
constexpr std::size_t TextLimit = 1 << 16;

/// The text of the file as UTF-8, without white space at its ends. UTF-16 with a byte order mark is
/// converted; a mark of UTF-8 is dropped. Raises the operating system's error, InvalidArgument for more than
/// `limit` bytes or for damaged UTF-16, and InvalidState when the user interrupts. `role` is what messages
/// call the file.
Repo::Secret ReadTextFile(const std::string& path, std::size_t limit = TextLimit, const char* role = "file");

/// The text of a list that users write or programs print, as UTF-8 and with all white space; "-" means
/// standard input. Raises as ReadTextFile, for more than 512 MiB.
std::string ReadListFile(const std::string& path);
/// The bytes of such a list as they are. Raises as ReadListFile.
Repo::Bytes ReadListBytes(const std::string& path);

/// The text in these bytes, which are overwritten. See ReadTextFile; `name` begins messages.
Repo::Secret TextOf(Repo::Bytes& bytes, const std::string& name);

} // namespace Agent
