#include "agent/Cli/SaveArguments.h"

#include "agent/Access/RepositoryOptions.h"
#include "agent/Run/UsageError.h"

#include <CLI/CLI.hpp>

#include <charconv>

namespace Agent {

namespace {

constexpr unsigned int SmallestPack = 4;  // MiB
constexpr unsigned int LargestPack = 128; // MiB

Repo::Compression CompressionOf(const std::string& text)
{
    if (text.empty() || text == "auto")
        return Repo::Compression::Auto;
    if (text == "off")
        return Repo::Compression::Off;
    if (text == "max")
        return Repo::Compression::Max;
    throw UsageError("--compression is neither auto, off nor max: '" + text + "'");
}

} // namespace

std::string OptionOr(const std::string& typed, const char* variable)
{
    return typed.empty() ? FromEnvironment({variable}, variable).value_or("") : typed;
}

unsigned int NumberOf(const std::string& text, const std::string& option, unsigned int least,
                      unsigned int most)
{
    unsigned int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < least || number > most)
        throw UsageError(option + " is not a number from " + std::to_string(least) + " to " +
                         std::to_string(most) + ": '" + text + "'");
    return number;
}

void SaveArguments::AddTo(CLI::App& command)
{
    command.add_option("--compression", m_compression, "How data is compressed: auto, off or max")
        ->type_name("MODE");
    command.add_option("--pack-size", m_packSize, "The size of pack files in MiB, 4 to 128")
        ->type_name("SIZE");
}

Repo::SaveOptions SaveArguments::Get() const
{
    Repo::SaveOptions options;
    options.compression = CompressionOf(OptionOr(m_compression, "COMPRESSION"));
    const std::string packSize = OptionOr(m_packSize, "PACK_SIZE");
    if (!packSize.empty())
        options.packSize = NumberOf(packSize, "--pack-size", SmallestPack, LargestPack) << 20;
    return options;
}

} // namespace Agent
