// Hexadecimal text.
#pragma once

#include <string>

namespace Agent {

/// Writes two lower-case digits a byte; returns the end of what it wrote.
char* WriteHex(const unsigned char* bytes, std::size_t size, char* out);
/// Random digits, two a byte; with 4 bytes and more, a name that no other process comes upon.
std::string RandomHex(int bytes);

} // namespace Agent
