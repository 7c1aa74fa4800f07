#include "agent/Access/RepositoryOptions.h"

#include "agent/Access/TextFile.h"
#include "agent/Remote/Location.h"
#include "agent/Repository/Secret.h"
#include "agent/Run/UsageError.h"

#include "Krt/Environment/Process.h"
#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <cstdlib>

namespace Agent {

namespace {

// Returns null for an empty variable. It is not copied, since it may be a password.
const char* Variable(const std::string& name)
{
    return FindVariable(name.c_str());
}

} // namespace

const char* FindVariable(const char* name)
{
    const char* const value = Krt::Environment::IsPrivilegeRaised() ? nullptr : std::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

std::optional<std::string> FromEnvironment(std::initializer_list<const char*> names, std::string_view name)
{
    return FromEnvironment(RepositoryOptions(), names, name);
}

std::optional<std::string> FromEnvironment(const RepositoryOptions& options,
                                           std::initializer_list<const char*> names, std::string_view name)
{
    const std::string purpose = options.isSource ? "_FROM_" : "_";
    const bool isOurs = std::any_of(names.begin(), names.end(), [&purpose](const char* each) {
        return Variable("KBAGENT" + purpose + each) != nullptr;
    });
    const char* const value = Variable((isOurs ? "KBAGENT" : "RESTIC") + purpose + std::string(name));
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

std::string FindLocation(const RepositoryOptions& options)
{
    std::string location = options.location;
    std::string file = options.locationFile;
    if (location.empty() && file.empty()) {
        const auto names = {"REPOSITORY", "REPOSITORY_FILE"};
        location = FromEnvironment(options, names, "REPOSITORY").value_or("");
        file = FromEnvironment(options, names, "REPOSITORY_FILE").value_or("");
    }
    if (!location.empty() && !file.empty())
        throw UsageError("The repository is given twice: directly and by a file");
    if (!file.empty()) {
        const Repo::Secret text = ReadTextFile(file, TextLimit, "the file of the location");
        location = Repo::AsText(text.View());
    }
    if (location.empty())
        throw UsageError(options.isSource ? "Name the source: --from-repo, --from-repository-file or "
                                            "KBAGENT_FROM_REPOSITORY"
                                          : "Name a repository: --repo, --repository-file or "
                                            "KBAGENT_REPOSITORY");
    return location;
}

std::optional<std::string> DirectoryOf(const std::string& location)
{
    constexpr std::string_view Scheme = "local:";
    if (Remote::IsRemote(location))
        return std::nullopt;
    if (location.starts_with(Scheme))
        return location.substr(Scheme.size());
    const std::size_t slash = location.find('/');
    const bool isAddress = slash != location.npos && slash != 0 && location.compare(slash - 1, 3, "://") == 0;
    KRT_RAISE_UNLESS(!isAddress, Krt::ErrorCode::NotSupported,
                     "The location of the repository is an address of an unknown kind; the known ones are "
                     "rest:https://HOST/PATH/ and s3:https://HOST/BUCKET. local:DIRECTORY is a directory "
                     "with any name");
    return location;
}

std::string FindCacheDirectory(const RepositoryOptions& options)
{
    if (options.hasNoCache || !options.cacheDirectory.empty())
        return options.hasNoCache ? "" : options.cacheDirectory;
    if (const char* const own = FindVariable("KBAGENT_CACHE_DIR"); own != nullptr)
        return own;
    if (Krt::Environment::IsRoot())
        return "/var/cache/kbagent";
    // The specification of the variable ignores a relative path.
    if (const char* const caches = FindVariable("XDG_CACHE_HOME"); caches != nullptr && *caches == '/')
        return std::string(caches) + "/kbagent";
    const char* const home = FindVariable("HOME");
    return home != nullptr ? std::string(home) + "/.cache/kbagent" : "";
}

std::chrono::seconds ParseDuration(const std::string& text, const std::string& option)
{
    constexpr std::int64_t Longest = 366LL * 24 * 3600;
    std::int64_t total = 0;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t unit = text.find_first_not_of("0123456789", at);
        const auto factor = unit == std::string::npos || unit == at || unit - at > 8 ? 0
                            : text[unit] == 'h'                                      ? 3600
                            : text[unit] == 'm'                                      ? 60
                            : text[unit] == 's'                                      ? 1
                                                                                     : 0;
        if (factor == 0)
            break;
        total += factor * std::stoll(text.substr(at, unit - at));
        at = unit + 1;
    }
    if (text.empty() || at != text.size() || total > Longest)
        throw UsageError(option + " is not a duration such as 90s, 5m or 1h30m: '" + text + "'");
    return std::chrono::seconds(total);
}

} // namespace Agent
