// Requests and responses of HTTP.
#pragma once

#include "agent/Repository/Bytes.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent::Http {

struct Header
{
    std::string name;
    std::string value;
};

enum class Method
{
    Get,
    Head,
    Put,
    Post,
    Delete
};

/// The method as requests name it.
const char* NameOf(Method method);

/// How long a request goes on after the user has interrupted: for a share of ClientSettings::graceTime.
enum class Grace
{
    None, ///< it ends at once
    Half, ///< then there is time to remove what it may have stored
    Whole ///< it removes what the run would leave
};

/// A request, which may be sent more than once.
struct Request
{
    Method method = Method::Get;
    std::string target; ///< path and query, encoded
    /// Makes the headers of an attempt, without Host and Content-Length. Their memory is overwritten after
    /// the attempt.
    std::function<std::vector<Header>()> makeHeaders = [] {
        return std::vector<Header>();
    };
    Repo::ByteView content;         ///< of Put and Post; outlives the request
    std::uint64_t limit = 64 << 10; ///< bytes of the body of a response of success, at most
    Grace grace = Grace::None;      ///< after an interrupt
    /// Returns true if a response of failure, with its body, means that the request may succeed later. The
    /// status codes that always mean this need not be considered.
    std::function<bool(int status, std::string_view body)> isTemporary = [](int, std::string_view) {
        return false;
    };
};

struct Response
{
    int status = 0;
    std::vector<Header> headers; ///< names in lower case
    bool isTooLong = false;      ///< the body was longer than the limit, and ends there

    bool IsSuccess() const { return status >= 200 && status < 300; }
    /// The value of a header, whose name is in lower case; empty if there is none.
    std::string_view Find(std::string_view name) const;
};

} // namespace Agent::Http
