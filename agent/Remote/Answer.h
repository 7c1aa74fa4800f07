// What backends on HTTP servers have in common: parts of files, and what is wrong with an answer. Failures
// raise Failure::Backend unless another one is named.
#pragma once

#include "agent/Http/Message.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Agent::Remote {

/// The value of the header Range for these bytes of a file. `length` is not 0.
std::string RangeOf(std::uint64_t offset, std::uint64_t length);

/// Raises unless the body is exactly the part of the file that was asked for: Damaged if the file ends before
/// it. The response has a status of success, or 416.
void RequirePart(const Http::Response& response, Repo::ByteView body, std::uint64_t offset,
                 std::uint64_t length);

/// Raises Damaged if the file has more bytes than the limit of the request.
void RequireWhole(const Http::Response& response, std::uint64_t limit);

/// The size that the response to HEAD announces.
std::uint64_t SizeFrom(const Http::Response& response);

/// Text of a server for a message: on one line, printable, and short.
std::string Quoted(std::string_view text);

/// "403 Forbidden", or the number alone for a status that is not common.
std::string StatusText(int status);

} // namespace Agent::Remote
