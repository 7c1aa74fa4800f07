#include "agent/Repository/Config.h"

#include "agent/Repository/Failure.h"
#include "agent/Repository/Sealing.h"

#include <charconv>

namespace Agent::Repo {

namespace {

Polynomial ParsePolynomial(std::string_view digits)
{
    Polynomial polynomial = 0;
    const char* const end = digits.data() + digits.size();
    const auto read = std::from_chars(digits.data(), end, polynomial, 16);
    const bool isRead = read.ec == std::errc() && read.ptr == end;
    return isRead && DegreeOf(polynomial) == ChunkerDegree && IsIrreducible(polynomial) ? polynomial : 0;
}

} // namespace

Config Config::Parse(std::string_view json)
{
    Config config;
    config.version = 0;
    bool hasId = false;
    JsonReader reader(json);
    std::string_view key;
    reader.BeginObject();
    while (reader.NextKey(key)) {
        if (IsKey(key, "version")) {
            config.version = static_cast<std::uint32_t>(reader.Unsigned(UINT32_MAX));
        } else if (IsKey(key, "id")) {
            config.id = reader.ReadId();
            hasId = true;
        } else if (IsKey(key, "chunker_polynomial")) {
            config.polynomial = ParsePolynomial(reader.String());
        } else {
            reader.Keep(std::string(key), config.unknown);
        }
    }
    reader.End();
    JoinRepeated(config.unknown);
    REPOSITORY_RAISE_UNLESS(config.version >= OldestVersion && config.version <= NewestVersion,
                            Failure::NoRepository,
                            "version " << config.version << " of the format is not supported");
    if (!hasId)
        reader.RaiseDamaged("the id is missing");
    if (config.polynomial == 0)
        reader.RaiseDamaged("the polynomial is missing or not irreducible");
    return config;
}

std::string Config::ToJson() const
{
    char digits[2 * sizeof(Polynomial)];
    const auto written = std::to_chars(digits, digits + sizeof(digits), polynomial, 16);
    std::string text;
    JsonWriter writer(text);
    writer.BeginObject();
    writer.Key("version");
    writer.Number(version);
    writer.Key("id");
    writer.WriteId(id);
    writer.Key("chunker_polynomial");
    writer.String({digits, static_cast<std::size_t>(written.ptr - digits)});
    writer.Members(unknown);
    writer.EndObject();
    return text;
}

Config Config::Random(std::uint32_t version)
{
    Config config;
    config.version = version;
    FillRandom(config.id.bytes);
    config.polynomial = RandomPolynomial();
    return config;
}

} // namespace Agent::Repo
