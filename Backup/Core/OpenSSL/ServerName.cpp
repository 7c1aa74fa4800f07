#include "Backup/Core/OpenSSL/ServerName.h"

#include "Backup/Core/OpenSSL/Handles.h"

#include <cstdio>

namespace Backup::OpenSSL {

namespace {

constexpr std::string_view Digits = "0123456789";
constexpr std::string_view HexDigits = "0123456789abcdefABCDEF";

std::string AddressBytes(const std::string& text)
{
    const AddressPtr address(a2i_IPADDRESS(text.c_str()));
    if (address == nullptr)
        return "";
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(address.get())),
            static_cast<std::size_t>(ASN1_STRING_length(address.get()))};
}

std::optional<ServerName> ParseIpv4(const std::string& text)
{
    const std::string bytes = AddressBytes(text);
    if (bytes.size() != 4)
        return std::nullopt;
    const auto part = [&](std::size_t i) {
        return static_cast<unsigned char>(bytes[i]);
    };
    char usual[16];
    std::snprintf(usual, sizeof usual, "%d.%d.%d.%d", part(0), part(1), part(2), part(3));
    return text == usual ? std::optional(ServerName{"", bytes}) : std::nullopt;
}

std::optional<ServerName> ParseIpv6(std::string_view text)
{
    // The zone is this machine's name of an interface; no certificate has it.
    const std::string address(text.substr(0, text.find('%')));
    if (address.find_first_not_of(std::string(HexDigits) + ":.") != std::string::npos)
        return std::nullopt;
    const std::string bytes = AddressBytes(address);
    return bytes.size() == 16 ? std::optional(ServerName{"", bytes}) : std::nullopt;
}

bool IsLabel(std::string_view label)
{
    return !label.empty() && label.size() <= 63 &&
           label.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_") ==
               std::string_view::npos;
}

bool IsNumber(std::string_view label)
{
    const bool isHex = label.starts_with("0x") || label.starts_with("0X");
    return (isHex ? label.find_first_not_of(HexDigits, 2) : label.find_first_not_of(Digits)) ==
           std::string_view::npos;
}

bool IsHostName(std::string_view name)
{
    if (name.size() > 253)
        return false;
    for (;;) {
        const std::size_t dot = name.find('.');
        if (!IsLabel(name.substr(0, dot)))
            return false;
        if (dot == std::string_view::npos)
            return true;
        name.remove_prefix(dot + 1);
    }
}

} // namespace

std::optional<ServerName> ParseServerName(std::string_view text)
{
    const ErrorMark mark;
    const bool isBracketed = text.size() > 2 && text.starts_with('[') && text.ends_with(']');
    if (isBracketed)
        text = text.substr(1, text.size() - 2);
    if (text.find(':') != std::string_view::npos)
        return ParseIpv6(text);
    if (text.ends_with('.'))
        text.remove_suffix(1);
    if (isBracketed || !IsHostName(text))
        return std::nullopt;
    if (IsNumber(text.substr(text.rfind('.') + 1)))
        return ParseIpv4(std::string(text));
    return ServerName{std::string(text), ""};
}

} // namespace Backup::OpenSSL
