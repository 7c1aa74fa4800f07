// Address: where an HTTP server is, as users write it, and the encoding of paths and queries.
#pragma once

#include "agent/Repository/Secret.h"

#include <string>
#include <string_view>

namespace Agent::Http {

struct Address
{
    bool isSecure = true;  ///< https
    std::string host;      ///< in lower case; an IPv6 address has brackets
    unsigned int port = 0; ///< 1 to 65535
    std::string path;      ///< encoded; begins with "/"
    std::string user;      ///< decoded; empty if there is none
    Repo::Secret password; ///< decoded; empty if there is none

    /// HOST, or HOST:PORT for a port other than that of the scheme. It is the value of the header Host.
    std::string HostAndPort() const;
    /// "https://HOST" or "http://HOST", with the port if it is not that of the scheme.
    std::string Origin() const;
};

/// Parses "https://[USER[:PASSWORD]@]HOST[:PORT][/PATH]", or the same with http. Raises UsageError for
/// anything else, and for a query or a fragment. The text is not in the message, since it may contain a
/// password.
Address ParseAddress(std::string_view text);

/// Replaces each byte by "%HH", unless it is a letter, a digit, one of "-._~", or in `kept`.
std::string PercentEncode(std::string_view text, std::string_view kept = {});
/// Replaces each "%HH" by its byte. Raises UsageError for a "%" without two digits.
std::string PercentDecode(std::string_view text);

/// Replaces the user and the password of each address in the text by "***".
std::string WithoutCredentials(std::string_view text);
/// Replaces the same in an argument that may be an address of a repository in a wrong form, such as a
/// password with "/" or a blank: all from the scheme to the last "@".
std::string ArgumentWithoutCredentials(std::string_view argument);

} // namespace Agent::Http
