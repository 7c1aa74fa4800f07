// What a command asks of the system's configuration before it begins.
#pragma once

#include <initializer_list>

namespace Agent {

/// Raises InvalidArgument, with file, key and value in the text, for a key of the section "configuration"
/// that is neither true nor false, and as Krt::Profile::OpenSystem does. What a file's reading would raise is
/// told once and in time then, not for each file.
void RequireSwitches(std::initializer_list<const char*> keys);

} // namespace Agent
