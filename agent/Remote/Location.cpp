#include "agent/Remote/Location.h"

#include "agent/Http/ServerTrust.h"
#include "agent/Remote/RestBackend.h"
#include "agent/Run/UsageError.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace Agent::Remote {

namespace {

constexpr std::string_view S3Scheme = "s3:";
constexpr std::string_view RestScheme = "rest:";

// The names between slashes, decoded.
std::vector<std::string> NamesOf(std::string_view path)
{
    std::vector<std::string> names;
    while (!path.empty()) {
        const std::size_t slash = path.find('/');
        if (std::string name = Http::PercentDecode(path.substr(0, slash)); !name.empty())
            names.push_back(std::move(name));
        path.remove_prefix(slash == path.npos ? path.size() : slash + 1);
    }
    return names;
}

void RequireBucket(const std::string& name)
{
    constexpr std::string_view Known = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._";
    if (name.find_first_not_of(Known) != name.npos || name.find_first_not_of('.') == name.npos)
        throw UsageError("The name of a bucket has only letters, digits, -, . and _");
}

BucketLookup ParseLookup(std::string_view text)
{
    if (text == "auto")
        return BucketLookup::Auto;
    if (text == "dns")
        return BucketLookup::Dns;
    if (text == "path")
        return BucketLookup::Path;
    throw UsageError("-o s3.bucket-lookup is auto, dns or path");
}

void SetExtended(const std::vector<std::string>& options, S3Location& location)
{
    for (const std::string& option : options) {
        const std::size_t equals = option.find('=');
        const std::string key = option.substr(0, equals);
        const std::string value = equals == option.npos ? "" : option.substr(equals + 1);
        if (key == "s3.region")
            location.region = value;
        else if (key == "s3.bucket-lookup")
            location.lookup = ParseLookup(value);
        else
            throw UsageError("The option -o has the keys s3.region and s3.bucket-lookup, and not '" + key +
                             "'");
    }
}

std::string ParsePin(const std::string& pin)
{
    const std::optional<std::string> digits = Http::DigitsOfPin(pin);
    if (!digits)
        throw UsageError("--tls-pin requires 64 hexadecimal digits, also after sha256:");
    return *digits;
}

Http::ClientSettings SettingsOf(const RemoteOptions& options)
{
    constexpr std::uint64_t Kibibyte = 1024;
    constexpr std::uint64_t Most = UINT64_C(1) << 40; // KiB a second, so that bytes fit
    Http::ClientSettings settings;
    settings.trust.anchorFile = options.anchorFile;
    settings.trust.anchorSource = options.anchorSource;
    for (const std::string& pin : options.pins)
        settings.trust.pins.push_back(ParsePin(pin));
    if (!settings.trust.pins.empty() && !settings.trust.anchorFile.empty())
        throw UsageError("--tls-pin and --cacert can't be combined: a pin replaces the CAs");
    settings.uploadLimit = std::min(options.uploadLimit, Most) * Kibibyte;
    settings.downloadLimit = std::min(options.downloadLimit, Most) * Kibibyte;
    return settings;
}

// Without TLS there is no certificate, so what was given to verify it would be ignored.
void RequireTlsIfWanted(const Http::Address& server, const RemoteOptions& options)
{
    if (options.requiresTls && !server.isSecure)
        throw UsageError("--tls-pin and --cacert need an address with https:, since a server without TLS has "
                         "no certificate");
}

bool IsLoopback(std::string_view host)
{
    const bool isNumber = host.find_first_not_of("0123456789.") == host.npos;
    return host == "localhost" || host == "[::1]" || (isNumber && host.starts_with("127."));
}

} // namespace

bool IsRemote(std::string_view location)
{
    return location.starts_with(S3Scheme) || location.starts_with(RestScheme);
}

void RequireKnownOptions(const std::vector<std::string>& extended)
{
    S3Location unused;
    SetExtended(extended, unused);
}

S3Location ParseS3Location(std::string_view location, const RemoteOptions& options)
{
    location.remove_prefix(S3Scheme.size());
    std::string url(location);
    if (location.starts_with("//"))
        url.insert(0, "https:");
    else if (location.find("://") == location.npos)
        url.insert(0, "https://");
    S3Location parsed;
    parsed.server = Http::ParseAddress(url);
    if (!parsed.server.user.empty() || parsed.server.password.Size() != 0)
        throw UsageError("The address of a repository on S3 has no user and no password; see "
                         "AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY");
    const std::vector<std::string> names = NamesOf(parsed.server.path);
    if (names.empty())
        throw UsageError("The address of a repository on S3 needs a bucket: s3:https://HOST/BUCKET/PREFIX");
    parsed.bucket = names.front();
    RequireBucket(parsed.bucket);
    for (std::size_t i = 1; i < names.size(); ++i) {
        if (names[i] == "." || names[i] == "..")
            throw UsageError("The address of a repository has no . and .. in its path");
        parsed.prefix += (i == 1 ? "" : "/") + names[i];
    }
    parsed.server.path = "/";
    SetExtended(options.extended, parsed);
    return parsed;
}

Http::Address ParseRestLocation(std::string_view location)
{
    location.remove_prefix(RestScheme.size());
    return Http::ParseAddress(location);
}

bool SendsPasswordOpenly(std::string_view location, const SecretSources& secrets)
{
    if (!location.starts_with(RestScheme)) // requests to S3 are signed
        return false;
    const Http::Address address = ParseRestLocation(location);
    const bool hasCredentials = !address.user.empty() || address.password.Size() != 0 ||
                                !secrets.restUser.empty() || secrets.restPassword.Size() != 0;
    return hasCredentials && !address.isSecure && !IsLoopback(address.host);
}

std::unique_ptr<Repo::IBackend> MakeRemoteBackend(std::string_view location, const RemoteOptions& options,
                                                  SecretSources secrets)
{
    Http::ClientSettings settings = SettingsOf(options);
    if (location.starts_with(S3Scheme)) {
        S3Location parsed = ParseS3Location(location, options);
        RequireTlsIfWanted(parsed.server, options);
        if (parsed.region.empty())
            parsed.region = FindRegion(secrets.environment);
        return std::make_unique<S3Backend>(
            std::move(parsed),
            FindCredentials(secrets.environment, secrets.credentialsFile, secrets.readFile),
            std::move(settings));
    }
    Http::Address address = ParseRestLocation(location);
    RequireTlsIfWanted(address, options);
    if (address.user.empty() && address.password.Size() == 0) {
        address.user = std::move(secrets.restUser);
        address.password = std::move(secrets.restPassword);
    }
    return std::make_unique<RestBackend>(std::move(address), std::move(settings));
}

} // namespace Agent::Remote
