// RepositoryOptions: which repository a command uses, and how it is opened and locked. What the command line
// leaves open comes from the environment: from variables KBAGENT_..., or RESTIC_... if there is no variable
// KBAGENT_... for the same purpose.
#pragma once

#include "agent/Remote/RemoteOptions.h"

#include <chrono>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace Agent {

struct RepositoryOptions
{
    std::string location;              ///< of the repository; empty if not given
    std::string locationFile;          ///< a file with the location; empty if not given
    std::string passwordFile;          ///< a file with the password; empty if not given
    std::string passwordCommand;       ///< a command that prints the password; empty if not given
    bool hasNoPassword = false;        ///< the password is empty
    std::string keyHint;               ///< first digits of the key file to try first; empty if not given
    bool isUnlocked = false;           ///< the repository is used without a lock
    bool mayBeUnlocked = false;        ///< the command has the option --no-lock
    bool mayRecoverSpace = false;      ///< the command has the option --recover-no-free-space
    std::chrono::seconds retryLock{0}; ///< how long to wait for a repository that is locked
    bool isQuiet = false;              ///< only what was asked for is printed
    bool isJson = false;               ///< errors are printed as JSON
    bool isVerbose = false;            ///< more is reported
    bool isVeryVerbose = false;        ///< each file is reported, too
    bool hasNoCache = false;           ///< no copies of a repository on a server are kept
    std::string cacheDirectory;        ///< for these copies; empty if not given
    Remote::RemoteOptions remote;      ///< of repositories on servers
    bool isSource = false;             ///< the second repository of a command: variables are PREFIX_FROM_...
};

/// The value of a variable of the environment; see FromEnvironment. `names` are those for the same purpose.
std::optional<std::string> FromEnvironment(const RepositoryOptions& options,
                                           std::initializer_list<const char*> names, std::string_view name);

/// The value of a variable; null if it is not set or empty, or if this process has more privileges than the
/// one that started it.
const char* FindVariable(const char* name);

/// The value of the first of the variables PREFIX_name that is set and not empty. PREFIX is KBAGENT if one of
/// the names is set with it, otherwise RESTIC. `name` is one of the names.
std::optional<std::string> FromEnvironment(std::initializer_list<const char*> names, std::string_view name);

/// Returns the location of the repository, from the options or the environment. Raises UsageError if there is
/// no location, or more than one. Raises the operating system's error if a file can't be read.
std::string FindLocation(const RepositoryOptions& options);

/// The directory that a location names; nothing if it is on a server. Raises NotSupported for an address with
/// "://" of an unknown kind. The address is not in the message, since it may contain a password.
std::optional<std::string> DirectoryOf(const std::string& location);

/// The directory for copies of repositories on servers: that of the options, of the variable
/// KBAGENT_CACHE_DIR, /var/cache/kbagent for root, otherwise kbagent in $XDG_CACHE_HOME or in ~/.cache. Empty
/// if there are to be none.
std::string FindCacheDirectory(const RepositoryOptions& options);

/// A time such as "90s", "5m" or "1h30m", as restic writes it. Raises UsageError, which names the option, for
/// other text.
std::chrono::seconds ParseDuration(const std::string& text, const std::string& option);

} // namespace Agent
