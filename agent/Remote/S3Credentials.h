// Where the credentials of S3 come from: the variables of the environment and the file of credentials that
// other programs use, too.
#pragma once

#include "agent/Remote/SignatureV4.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Agent::Remote {

/// The value of a variable of the environment; null if it is not set, or is empty.
using Environment = std::function<const char*(const char* name)>;
/// The text of a file; nothing if it does not exist. Raises if it can't be read.
using FileReader = std::function<std::optional<Repo::Secret>(const std::string& path)>;

/// The credentials of AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY and AWS_SESSION_TOKEN. Otherwise those of the
/// profile AWS_PROFILE, or "default", in the file AWS_SHARED_CREDENTIALS_FILE, otherwise in `file`, otherwise
/// in ~/.aws/credentials. Raises UsageError if there are none.
S3Credentials FindCredentials(const Environment& environment, const std::string& file,
                              const FileReader& readFile);

/// The credentials of a profile in the text of a file; nothing if it does not have both keys.
std::optional<S3Credentials> ParseCredentials(std::string_view text, std::string_view profile);

/// The region of AWS_REGION or AWS_DEFAULT_REGION; empty if neither is set.
std::string FindRegion(const Environment& environment);

} // namespace Agent::Remote
