// The name by which a server was reached.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Backup::OpenSSL {

/// One of the two.
struct ServerName
{
    std::string host;    ///< without a last dot
    std::string address; ///< the 4 or 16 bytes of an IP address
};

/// Nothing for what can be neither. A name whose last label is a number can only be an IPv4 address, and that
/// in its one usual form: programs don't agree on what the others mean.
std::optional<ServerName> ParseServerName(std::string_view text);

} // namespace Backup::OpenSSL
