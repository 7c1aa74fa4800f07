// The locations of repositories on servers, as restic writes them:
//   s3:https://HOST[:PORT]/BUCKET[/PREFIX], s3:HOST/BUCKET[/PREFIX], s3://HOST/BUCKET[/PREFIX]
//   rest:https://[USER:PASSWORD@]HOST[:PORT]/PATH/
// Messages do not contain them, since they may contain a password.
#pragma once

#include "agent/Remote/RemoteOptions.h"
#include "agent/Remote/S3Backend.h"
#include "agent/Remote/S3Credentials.h"

#include <memory>
#include <string>
#include <string_view>

namespace Agent::Remote {

/// Where secrets come from that are in no option.
struct SecretSources
{
    Environment environment;     ///< variables AWS_..., and HOME
    std::string credentialsFile; ///< of S3, if no variable names one
    FileReader readFile;
    std::string restUser; ///< of an address rest: that has none
    Repo::Secret restPassword;
};

/// Returns true for a location on a server, whatever follows the scheme.
bool IsRemote(std::string_view location);

/// Raises UsageError for an extended option that does not exist, or whose value can't be used.
void RequireKnownOptions(const std::vector<std::string>& extended);

/// Parses a location that begins with "s3:". Raises UsageError, also for a user in the address, and for an
/// extended option that does not exist.
S3Location ParseS3Location(std::string_view location, const RemoteOptions& options);
/// Parses a location that begins with "rest:". Raises UsageError.
Http::Address ParseRestLocation(std::string_view location);

/// Returns true if a user or a password would be sent over a network without TLS. Raises UsageError for a
/// location that can't be parsed.
bool SendsPasswordOpenly(std::string_view location, const SecretSources& secrets);

/// The backend for a location on a server, without connecting. Raises UsageError for options, locations and
/// secrets that can't be used, also for a server without TLS if the options require it, and what reading
/// files raises.
std::unique_ptr<Repo::IBackend> MakeRemoteBackend(std::string_view location, const RemoteOptions& options,
                                                  SecretSources secrets);

} // namespace Agent::Remote
