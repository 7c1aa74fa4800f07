#include "agent/Http/Address.h"

#include "agent/Run/UsageError.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace Agent::Http {

namespace {

constexpr unsigned int SecurePort = 443;
constexpr unsigned int PlainPort = 80;
constexpr std::string_view SecureScheme = "https://";
constexpr std::string_view PlainScheme = "http://";

[[noreturn]] void RaiseInvalid(const std::string& reason)
{
    throw UsageError("The address of the repository can't be used: " + reason);
}

bool IsUnreserved(char byte)
{
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
           byte == '-' || byte == '.' || byte == '_' || byte == '~';
}

std::optional<unsigned char> HexByte(std::string_view digits)
{
    unsigned char value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, 16);
    return digits.size() == 2 && error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

// Brackets are only around an IPv6 address.
bool IsHost(std::string_view host)
{
    if (host.starts_with('['))
        return host.size() > 2 && host.ends_with(']') &&
               host.find_first_not_of("0123456789abcdef:.", 1) == host.size() - 1;
    return !host.empty() && host.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-._") == host.npos;
}

void ParseHost(std::string_view text, Address& address)
{
    const std::size_t colon = text.ends_with(']') ? text.npos : text.rfind(':');
    address.host = text.substr(0, colon);
    std::transform(address.host.begin(), address.host.end(), address.host.begin(), [](char byte) {
        return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + 32) : byte;
    });
    if (!IsHost(address.host))
        RaiseInvalid("it has no host name, or one with other characters than ASCII letters, digits, - and .");
    if (colon == text.npos)
        return;
    const std::string_view digits = text.substr(colon + 1);
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, address.port);
    if (error != std::errc() || stop != end || address.port == 0 || address.port > 65535)
        RaiseInvalid("its port is not a number from 1 to 65535");
}

void ParseUser(std::string_view text, Address& address)
{
    const std::size_t colon = text.find(':');
    address.user = PercentDecode(text.substr(0, colon));
    if (colon == text.npos)
        return;
    std::string password = PercentDecode(text.substr(colon + 1));
    address.password = Repo::Secret(Repo::AsBytes(password));
    Repo::Wipe({reinterpret_cast<unsigned char*>(password.data()), password.size()});
}

} // namespace

std::string Address::HostAndPort() const
{
    return port == (isSecure ? SecurePort : PlainPort) ? host : host + ":" + std::to_string(port);
}

std::string Address::Origin() const
{
    return std::string(isSecure ? SecureScheme : PlainScheme) + HostAndPort();
}

Address ParseAddress(std::string_view text)
{
    Address address;
    address.isSecure = text.starts_with(SecureScheme);
    if (!address.isSecure && !text.starts_with(PlainScheme))
        RaiseInvalid("it begins with neither https:// nor http://");
    address.port = address.isSecure ? SecurePort : PlainPort;
    text.remove_prefix((address.isSecure ? SecureScheme : PlainScheme).size());
    const std::size_t slash = std::min(text.find('/'), text.size());
    std::string_view authority = text.substr(0, slash);
    address.path = slash == text.size() ? "/" : text.substr(slash);
    const auto isInPath = [](char byte) {
        return byte > ' ' && byte < '\x7F' && byte != '?' && byte != '#';
    };
    if (!std::all_of(address.path.begin(), address.path.end(), isInPath))
        RaiseInvalid("its path has a blank, a character that is not ASCII, ? or #, which are written as %HH");
    if (const std::size_t at = authority.rfind('@'); at != authority.npos) {
        // Otherwise the rest of a password with a slash would be shown, and asked for as a host.
        if (address.path.find('@') != address.path.npos)
            RaiseInvalid(
                "it has an @ before and after its first /; in a password, / is written as %2F and @ as "
                "%40, and in a path @ as %40");
        ParseUser(authority.substr(0, at), address);
        authority.remove_prefix(at + 1);
    }
    ParseHost(authority, address);
    return address;
}

std::string PercentEncode(std::string_view text, std::string_view kept)
{
    constexpr char Digits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char each : text) {
        if (IsUnreserved(each) || kept.find(each) != kept.npos) {
            encoded += each;
            continue;
        }
        const unsigned char byte = static_cast<unsigned char>(each);
        encoded += '%';
        encoded += Digits[byte >> 4];
        encoded += Digits[byte & 0xF];
    }
    return encoded;
}

std::string PercentDecode(std::string_view text)
{
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const std::optional<unsigned char> byte = HexByte(text.substr(i + 1, 2));
        if (!byte)
            RaiseInvalid("a % is not followed by two hexadecimal digits");
        decoded += static_cast<char>(*byte);
        i += 2;
    }
    return decoded;
}

std::string WithoutCredentials(std::string_view text)
{
    std::string hidden;
    for (;;) {
        const std::size_t scheme = text.find("://");
        if (scheme == text.npos)
            return hidden.append(text);
        hidden.append(text.substr(0, scheme + 3));
        text.remove_prefix(scheme + 3);
        const std::string_view authority = text.substr(0, text.find_first_of("/ "));
        if (const std::size_t at = authority.rfind('@'); at != authority.npos) {
            hidden.append("***");
            text.remove_prefix(at);
        }
    }
}

std::string ArgumentWithoutCredentials(std::string_view argument)
{
    const std::size_t at = argument.rfind('@');
    for (const std::string_view scheme : {"://", "rest:", "s3:"}) {
        const std::size_t begin = argument.find(scheme);
        if (at != argument.npos && begin < at)
            return std::string(argument.substr(0, begin + scheme.size()))
                .append("***")
                .append(argument.substr(at));
    }
    return std::string(argument);
}

} // namespace Agent::Http
