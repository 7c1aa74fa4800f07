#include "agent/Store/Snapshot.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YTextWriter.h"
#include "Krt/JSON/YValue.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <limits>

namespace Agent {

using Krt::YString;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

constexpr const char* FormatName = "kbagent-snapshot";
constexpr unsigned long long FormatVersion = 1;
constexpr std::string_view TrailerBegin = "{\"entries\":";

// A frame with a magic number of the range that decompressors skip, and 8 bytes long.
constexpr std::array<unsigned char, 8> LocatorBegin{0x50, 0x2A, 0x4D, 0x18, 8, 0, 0, 0};

void PutNumber(YObject& object, const char* key, unsigned long long number)
{
    object.Put(key, boost::make_shared<YValue>(YValue::FromNumber(number)));
}

unsigned long long NumberOf(const YObject& object, const char* key)
{
    return object.Find(key, Krt::MessageType::General)->AsNumber();
}

unsigned int DeviceNumberOf(const YObject& object, const char* key)
{
    const unsigned long long number = NumberOf(object, key);
    KRT_RAISE_UNLESS(number <= std::numeric_limits<unsigned int>::max(), Krt::ErrorCode::InvalidArgument,
                     "Not a device's number: " << number);
    return static_cast<unsigned int>(number);
}

const YString& TextOf(const YObject& object, const char* key)
{
    return object.Find(key, Krt::MessageType::General)->AsString();
}

void Append(YObject object, std::string& line)
{
    YValue::FromObject(std::move(object)).StringifyTo(line);
    line += '\n';
}

} // namespace

void WriteLine(const SnapshotHeader& header, std::string& line)
{
    Krt::JSON::YArray paths;
    for (const YString& path : header.paths)
        paths.push_back(YValue::Create<YString>(path));
    YObject object;
    object.Set<YString>("format", FormatName);
    PutNumber(object, "version", FormatVersion);
    PutNumber(object, "time", header.time);
    object.Set<YString>("host", header.host);
    object.Set<Krt::JSON::YArray>("paths", std::move(paths));
    Append(std::move(object), line);
}

void WriteLine(std::string_view record, const EntryFacts& facts, std::string& line)
{
    {
        Krt::JSON::YTextWriter writer(line);
        const auto number = [&writer](std::string_view key, unsigned long long value) {
            writer.Key(key);
            writer.Number(value);
        };
        const auto text = [&writer](std::string_view key, std::string_view value) {
            writer.Key(key);
            writer.String(value);
        };
        writer.BeginObject();
        writer.Key("record");
        writer.Text(record);
        if (facts.content)
            text("content", facts.content->ToHex());
        if (facts.hardLinkGroup != 0)
            number("hard_link", facts.hardLinkGroup);
        if (facts.device) {
            writer.Key("device");
            writer.BeginObject();
            number("major", facts.device->major);
            number("minor", facts.device->minor);
            writer.EndObject();
        }
        if (facts.linkTarget)
            text("link_target", facts.linkTarget->Bytes());
        if (facts.readSize)
            number("read_size", *facts.readSize);
        writer.EndObject();
    }
    line += '\n';
}

void WriteLine(const SnapshotTrailer& trailer, std::string& line)
{
    YObject object;
    PutNumber(object, "entries", trailer.entries);
    PutNumber(object, "bytes", trailer.bytes);
    PutNumber(object, "failed", trailer.failed);
    object.Set<YString>("digest", YString(trailer.digest.ToHex()));
    Append(std::move(object), line);
}

SnapshotHeader ReadHeader(std::string_view line)
{
    const auto value = YValue::Parse(line);
    const YObject& object = value->AsObject();
    KRT_RAISE_UNLESS(TextOf(object, "format") == FormatName, Krt::ErrorCode::InvalidArgument,
                     "This is no snapshot");
    const unsigned long long version = NumberOf(object, "version");
    KRT_RAISE_UNLESS(version == FormatVersion, Krt::ErrorCode::InvalidArgument,
                     "The snapshot has format " << version << "; this program knows format "
                                                << FormatVersion);
    SnapshotHeader header;
    header.time = NumberOf(object, "time");
    header.host = TextOf(object, "host");
    for (const auto& path : object.Find("paths", Krt::MessageType::General)->AsArray())
        header.paths.push_back(path->AsString());
    return header;
}

SnapshotEntry ReadEntry(std::string_view line)
{
    const auto value = YValue::Parse(line);
    const YObject& object = value->AsObject();
    SnapshotEntry entry;
    entry.record = object.Find("record", Krt::MessageType::General)->AsObject();
    if (const auto& content = object.FindOpt("content"))
        entry.content = Address::FromHex(content->AsString());
    if (const auto& group = object.FindOpt("hard_link"))
        entry.hardLinkGroup = group->AsNumber();
    if (const auto& device = object.FindOpt("device")) {
        const YObject& numbers = device->AsObject();
        entry.device = DeviceNumbers{DeviceNumberOf(numbers, "major"), DeviceNumberOf(numbers, "minor")};
    }
    if (const auto& target = object.FindOpt("link_target"))
        entry.linkTarget = target->AsString();
    if (const auto& size = object.FindOpt("read_size"))
        entry.readSize = size->AsNumber();
    return entry;
}

SnapshotTrailer ReadTrailer(std::string_view line)
{
    const auto value = YValue::Parse(line);
    const YObject& object = value->AsObject();
    SnapshotTrailer trailer;
    trailer.entries = NumberOf(object, "entries");
    trailer.bytes = NumberOf(object, "bytes");
    trailer.failed = NumberOf(object, "failed");
    trailer.digest = Address::FromHex(TextOf(object, "digest"));
    return trailer;
}

bool IsTrailer(std::string_view line)
{
    return line.starts_with(TrailerBegin);
}

TrailerLocator MakeTrailerLocator(unsigned long long offset)
{
    TrailerLocator locator;
    std::copy(LocatorBegin.begin(), LocatorBegin.end(), locator.begin());
    for (std::size_t i = LocatorBegin.size(); i < locator.size(); ++i, offset >>= 8)
        locator[i] = static_cast<unsigned char>(offset);
    return locator;
}

std::optional<unsigned long long> ReadTrailerLocator(const TrailerLocator& locator)
{
    if (!std::equal(LocatorBegin.begin(), LocatorBegin.end(), locator.begin()))
        return std::nullopt;
    unsigned long long offset = 0;
    for (std::size_t i = locator.size(); i-- > LocatorBegin.size();)
        offset = offset << 8 | locator[i];
    return offset;
}

} // namespace Agent
