#include "agent/Cli/Command.h"
#include "agent/Http/ServerTrust.h"
#include "agent/Repository/Json.h"
#include "agent/Run/Text.h"
#include "agent/Trust/Handshake.h"

#include "Backup/Core/OpenSSL.h"

#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

#include <array>
#include <charconv>
#include <chrono>
#include <optional>
#include <string_view>

namespace Agent {

using Backup::OpenSSL::CertificateSummary;
using Backup::OpenSSL::IsCertificateTrusted;
using Backup::OpenSSL::ReadCertificateFile;
using Backup::OpenSSL::TrustOptions;
using Backup::OpenSSL::TrustReport;
using Krt::YString;

namespace {

template <class Number>
std::optional<Number> ParseNumber(std::string_view text)
{
    Number number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

// Returns true if the text has the form, in which "0" matches any digit and other characters match
// themselves.
bool HasForm(std::string_view text, std::string_view form)
{
    if (text.size() != form.size())
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (form[i] == '0' ? !isDigit : text[i] != form[i])
            return false;
    }
    return true;
}

std::optional<long long> ParseCalendar(std::string_view text)
{
    using namespace std::chrono;
    const bool hasClock = HasForm(text, "0000-00-00T00:00:00Z");
    if (!hasClock && !HasForm(text, "0000-00-00"))
        return std::nullopt;
    const auto number = [text](std::size_t offset, std::size_t count) {
        return *ParseNumber<unsigned int>(text.substr(offset, count));
    };
    const year_month_day date(year(static_cast<int>(number(0, 4))), month(number(5, 2)), day(number(8, 2)));
    std::array<unsigned int, 3> clock{};
    for (std::size_t i = 0; hasClock && i < clock.size(); ++i)
        clock[i] = number(11 + 3 * i, 2);
    if (!date.ok() || clock[0] > 23 || clock[1] > 59 || clock[2] > 59)
        return std::nullopt;
    const sys_seconds time = sys_days(date) + hours(clock[0]) + minutes(clock[1]) + seconds(clock[2]);
    return time.time_since_epoch().count();
}

// "HOST:PORT", or "[ADDRESS]:PORT" for an IPv6 address. Raises UsageError.
Endpoint ParseEndpoint(const std::string& text)
{
    const std::size_t colon = text.rfind(':');
    if (colon != std::string::npos) {
        const std::string port = text.substr(colon + 1);
        const bool isPort = ParseNumber<unsigned short>(port).value_or(0) != 0;
        std::string host = text.substr(0, colon);
        if (host.size() > 2 && host.starts_with('[') && host.ends_with(']'))
            host = host.substr(1, host.size() - 2);
        else if (host.find(':') != std::string::npos)
            host.clear(); // an IPv6 address without brackets has no clear end
        if (isPort && !host.empty())
            return {host, port};
    }
    throw UsageError("Not HOST:PORT or [ADDRESS]:PORT: " + text);
}

// "2001-02-03T04:05:06Z", "2001-02-03" (the beginning of that day in UTC) or a number of seconds. Returns
// seconds since 1970. Raises UsageError.
long long ParseTime(const std::string& text)
{
    std::optional<long long> time = ParseCalendar(text);
    if (!time)
        time = ParseNumber<long long>(text);
    if (!time)
        throw UsageError("Not a time like 2001-02-03T04:05:06Z: " + text);
    return *time;
}

// Returns the options of a verification that only looks for errors and needs no CAs of the system.
TrustOptions OptionsOfProbe()
{
    TrustOptions options;
    options.pinnedKey = YString(std::string(64, '0'));
    return options;
}

// Raises an error that names the file if no certificate can be read from it.
std::string ReadCertificates(const std::string& file)
{
    std::string bytes = ReadCertificateFile(file.c_str());
    TrustReport probe;
    IsCertificateTrusted(bytes, {}, "host", OptionsOfProbe(), &probe);
    KRT_RAISE_UNLESS(!probe.server.keyHash.IsEmpty(), Krt::ErrorCode::InvalidArgument,
                     "No certificate can be read from " << file.c_str());
    return bytes;
}

// Raises an error that names the file if the library can't use its revocation lists.
std::string ReadRevocationLists(const std::string& file)
{
    TrustOptions probe = OptionsOfProbe();
    probe.revocationLists.push_back(ReadCertificateFile(file.c_str()));
    try {
        IsCertificateTrusted("", {}, "host", probe);
    } catch (const Krt::Exception::YError& error) {
        KRT_RAISE(Krt::ErrorCode::InvalidArgument, "--crl " << file.c_str() << ": " << ReasonOf(error));
    }
    return probe.revocationLists.front();
}

class TrustCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void CheckUsage() const;
    std::string Name() const;
    TrustOptions Options() const;
    bool VerifyServer(const TrustOptions& options, TrustReport& found) const;
    bool VerifyFile(const TrustOptions& options, TrustReport& found) const;

    CLI::Option* m_server = nullptr;
    CLI::Option* m_name = nullptr;
    CLI::Option* m_lists = nullptr;
    std::string m_certificate;
    std::string m_chain;
    std::string m_anchors;
    std::string m_pin;
    std::string m_time;
    unsigned int m_timeout = 10;
    bool m_isJson = false;
};

CLI::App* TrustCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("trust", "Check whether a server's certificate is trusted");
    m_server = AddPathArguments(*command, "HOST:PORT of the server; [ADDRESS]:PORT for IPv6", "SERVER")
                   ->expected(0, 1);
    CLI::Option* const certificate =
        command->add_option("--cert", m_certificate, "Check this certificate, without connecting to a server")
            ->type_name("FILE");
    command->add_option("--chain", m_chain, "The certificates that the server would send with it")
        ->type_name("FILE")
        ->needs(certificate);
    m_name =
        AddPathArguments(*command, "The host name or IP address that the certificate must be for", "--name")
            ->type_name("NAME")
            ->expected(1)
            ->allow_extra_args(false); // what follows it may be SERVER
    CLI::Option* const anchors =
        command->add_option("--anchors", m_anchors, "Trust these CAs instead of the system's")
            ->type_name("FILE");
    command->add_option("--pin", m_pin, "SHA-256 of the server's public key; replaces the CAs")
        ->type_name("SHA256")
        ->excludes(anchors);
    m_lists = AddPathArguments(*command, "Check these revocation lists of the CAs; repeatable", "--crl")
                  ->type_name("FILE")
                  ->expected(1)
                  ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
                  ->allow_extra_args(false);
    command->add_option("--at", m_time, "Check as of this time, such as 2001-02-03T04:05:06Z")
        ->type_name("TIME");
    command->add_option("--timeout", m_timeout, "Seconds to wait for the server")
        ->type_name("SECONDS")
        ->check(CLI::Range(1u, 86400u))
        ->capture_default_str();
    command->add_flag("--json", m_isJson, "Print a JSON document");
    command->footer(
        "Files are PEM or DER. The first line of the output is \"trusted\", or \"not trusted\" with the\n"
        "reason. A summary of the certificate follows. Exit codes: 0 trusted, 4 not trusted, 1 the server\n"
        "could not be reached, or a file contains nothing usable. Only a TLS handshake is sent to the "
        "server.\n\n"
        "Examples: kbagent trust backup.example.com:443\n"
        "          kbagent trust --cert server.pem --chain chain.pem --name backup.example.com");
    return command;
}

void TrustCommand::CheckUsage() const
{
    const std::size_t servers = m_server->count();
    if ((servers == 0) == m_certificate.empty())
        throw UsageError("Name a server or, with --cert, a certificate");
    if (servers == 0 && m_name->count() == 0)
        throw UsageError("--cert requires --name: the name by which the server is reached");
    if (!m_pin.empty() && !Http::DigitsOfPin(m_pin))
        throw UsageError("--pin requires 64 hexadecimal digits, also after sha256:");
}

// Returns the name as it was typed; an IPv6 address may be in brackets.
std::string TrustCommand::Name() const
{
    return PathsOf(m_name).front();
}

TrustOptions TrustCommand::Options() const
{
    TrustOptions options;
    if (!m_anchors.empty())
        options.anchorFiles.push_back(m_anchors.c_str());
    options.pinnedKey = YString(Http::DigitsOfPin(m_pin).value_or(""));
    if (!m_time.empty())
        options.time = ParseTime(m_time);
    for (const std::string& file : PathsOf(m_lists))
        options.revocationLists.push_back(ReadRevocationLists(file));
    return options;
}

bool TrustCommand::VerifyServer(const TrustOptions& options, TrustReport& found) const
{
    const Endpoint server = ParseEndpoint(PathsOf(m_server).front());
    const std::string name = m_name->count() == 0 ? server.host : Name();
    // Unusable arguments raise before the connection is made.
    IsCertificateTrusted("", {}, YString(name.c_str()), options);
    const Handshake handshake(server, name,
                              std::chrono::steady_clock::now() + std::chrono::seconds(m_timeout));
    return IsCertificateTrusted(handshake.GetConnection(), YString(name.c_str()), options, &found);
}

bool TrustCommand::VerifyFile(const TrustOptions& options, TrustReport& found) const
{
    std::vector<std::string> chain;
    if (!m_chain.empty())
        chain.push_back(ReadCertificates(m_chain));
    return IsCertificateTrusted(ReadCertificates(m_certificate), chain, YString(Name().c_str()), options,
                                &found);
}

std::string EndText(const std::optional<long long>& time)
{
    return time ? TimeText(static_cast<unsigned long long>(*time)) : "(unreadable)";
}

// The reason and the names are printable.
void Print(const TrustReport& found, Output& out)
{
    out << (found.reason.IsEmpty() ? "trusted" : "not trusted: " + found.reason.Bytes()) << "\n";
    if (found.depth > 0)
        out << "  found in  " << found.subject.Bytes() << "\n";
    const CertificateSummary& server = found.server;
    if (server.keyHash.IsEmpty())
        return;
    out << "  subject   " << server.subject.Bytes() << "\n";
    out << "  issuer    " << server.issuer.Bytes() << "\n";
    out << "  valid     " << EndText(server.notBefore) << " to " << EndText(server.notAfter) << "\n";
    out << "  key       " << Http::PinScheme << server.keyHash.Bytes() << "\n";
}

std::string JsonOf(const TrustReport& found)
{
    std::string json;
    Repo::JsonWriter writer(json);
    const auto text = [&](const char* key, const std::string& value) {
        writer.Key(key);
        writer.String(value);
    };
    writer.BeginObject();
    text("message_type", "summary");
    writer.Key("trusted");
    writer.Bool(found.reason.IsEmpty());
    if (!found.reason.IsEmpty())
        text("reason", found.reason.Bytes());
    if (found.depth > 0)
        text("found_in", found.subject.Bytes());
    const CertificateSummary& server = found.server;
    if (!server.keyHash.IsEmpty()) {
        text("subject", server.subject.Bytes());
        text("issuer", server.issuer.Bytes());
        if (server.notBefore)
            text("not_before", EndText(server.notBefore));
        if (server.notAfter)
            text("not_after", EndText(server.notAfter));
        text("key", server.keyHash.Bytes());
    }
    writer.EndObject();
    return PrintableJson(json);
}

void TrustCommand::Run(Report& report)
{
    CheckUsage();
    const TrustOptions options = Options();
    TrustReport found;
    const bool isTrusted = m_certificate.empty() ? VerifyServer(options, found) : VerifyFile(options, found);
    if (m_isJson)
        report.Out() << JsonOf(found) << "\n";
    else
        Print(found, report.Out());
    if (!isTrusted)
        report.AnswerNo();
}

} // namespace

std::unique_ptr<ICommand> MakeTrustCommand()
{
    return std::make_unique<TrustCommand>();
}

} // namespace Agent
