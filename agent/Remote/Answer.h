// Texts for messages on the answers of servers.
#pragma once

#include <string>
#include <string_view>

namespace Agent::Remote {

/// Text of a server for a message: on one line, printable, and short.
std::string Quoted(std::string_view text);

/// "403 Forbidden", or the number alone for a status that is not common.
std::string StatusText(int status);

} // namespace Agent::Remote
