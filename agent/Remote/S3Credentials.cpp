#include "agent/Remote/S3Credentials.h"

#include "agent/Run/UsageError.h"

namespace Agent::Remote {

using Repo::AsBytes;
using Repo::Secret;

namespace {

std::string_view Trimmed(std::string_view text)
{
    constexpr std::string_view White = " \t\r";
    const std::size_t begin = text.find_first_not_of(White);
    return begin == text.npos ? std::string_view()
                              : text.substr(begin, text.find_last_not_of(White) + 1 - begin);
}

const char* First(const Environment& environment, std::initializer_list<const char*> names)
{
    for (const char* const name : names) {
        if (const char* const value = environment(name); value != nullptr)
            return value;
    }
    return "";
}

Secret SecretOf(const char* text)
{
    return Secret(AsBytes(text));
}

} // namespace

std::optional<S3Credentials> ParseCredentials(std::string_view text, std::string_view profile)
{
    S3Credentials credentials;
    bool isInProfile = false;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = Trimmed(text.substr(0, end));
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
        const std::size_t equals = line.find('=');
        if (line.starts_with('[')) {
            isInProfile = line.ends_with(']') && Trimmed(line.substr(1, line.size() - 2)) == profile;
        } else if (isInProfile && !line.starts_with('#') && !line.starts_with(';') && equals != line.npos) {
            const std::string_view key = Trimmed(line.substr(0, equals));
            const std::string_view value = Trimmed(line.substr(equals + 1));
            if (key == "aws_access_key_id")
                credentials.accessKey = value;
            else if (key == "aws_secret_access_key")
                credentials.secretKey = Secret(AsBytes(value));
            else if (key == "aws_session_token")
                credentials.sessionToken = Secret(AsBytes(value));
        }
    }
    if (credentials.accessKey.empty() || credentials.secretKey.Size() == 0)
        return std::nullopt;
    return credentials;
}

S3Credentials FindCredentials(const Environment& environment, const std::string& file,
                              const FileReader& readFile)
{
    const std::string accessKey = First(environment, {"AWS_ACCESS_KEY_ID"});
    const char* const secretKey = First(environment, {"AWS_SECRET_ACCESS_KEY"});
    if (accessKey.empty() != (*secretKey == '\0'))
        throw UsageError("AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY are set together, or not at all");
    if (!accessKey.empty())
        return {accessKey, SecretOf(secretKey), SecretOf(First(environment, {"AWS_SESSION_TOKEN"}))};

    const std::string home = First(environment, {"HOME"});
    std::string path = First(environment, {"AWS_SHARED_CREDENTIALS_FILE"});
    if (path.empty())
        path = file;
    if (path.empty() && !home.empty())
        path = home + "/.aws/credentials";
    std::string profile = First(environment, {"AWS_PROFILE"});
    if (profile.empty())
        profile = "default";
    const std::optional<Secret> text = path.empty() ? std::nullopt : readFile(path);
    if (!text)
        throw UsageError("There are no credentials for S3: set AWS_ACCESS_KEY_ID and "
                         "AWS_SECRET_ACCESS_KEY, or AWS_SHARED_CREDENTIALS_FILE");
    std::optional<S3Credentials> credentials = ParseCredentials(Repo::AsText(text->View()), profile);
    if (!credentials)
        throw UsageError("There are no credentials for S3 in the profile [" + profile + "] of " + path);
    return std::move(*credentials);
}

std::string FindRegion(const Environment& environment)
{
    return First(environment, {"AWS_REGION", "AWS_DEFAULT_REGION"});
}

} // namespace Agent::Remote
