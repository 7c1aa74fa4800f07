// The lines of a snapshot: what stands in the header, in an entry and in the trailer, and their JSON forms.
#pragma once

#include "agent/Store/Address.h"

#include "Krt/JSON/YObject.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

struct SnapshotHeader
{
    unsigned long long time = 0;     ///< of the run's begin, in seconds since 1970
    Krt::YString host;               ///< the name of the machine
    std::vector<Krt::YString> paths; ///< where the walks started
};

struct DeviceNumbers
{
    unsigned int major = 0;
    unsigned int minor = 0;
    friend bool operator==(const DeviceNumbers&, const DeviceNumbers&) = default;
};

/// What a snapshot tells of an entry beside its record.
struct EntryFacts
{
    std::optional<Address> content;             ///< of a regular file; each name of a hard-linked one has it
    unsigned long long hardLinkGroup = 0;       ///< the same for all names of one file; 0 for none
    std::optional<DeviceNumbers> device;        ///< of a device
    std::optional<Krt::YString> linkTarget;     ///< where the raw target differs from the record's
    std::optional<unsigned long long> readSize; ///< of the content, where it differs from the record's size
};

struct SnapshotEntry : EntryFacts
{
    Krt::JSON::YObject record; ///< as ToJSON gave it
};

struct SnapshotTrailer
{
    unsigned long long entries = 0;
    unsigned long long bytes = 0;  ///< of the contents that were read
    unsigned long long failed = 0; ///< entries that the run could not store, or not as they were
    Address digest;                ///< of all lines before, with their line ends
};

/// Longest line, in bytes. A writer makes none that is longer, and a reader refuses it.
constexpr std::size_t SnapshotLineLimit = 16 << 20;

/// Append the line, with its end, to `line`. `record` is the text that StringifyTo gives.
void WriteLine(const SnapshotHeader& header, std::string& line);
void WriteLine(std::string_view record, const EntryFacts& facts, std::string& line);
void WriteLine(const SnapshotTrailer& trailer, std::string& line);

/// Read a line without its end. Raise a YError on what is none of the kind.
SnapshotHeader ReadHeader(std::string_view line);
SnapshotEntry ReadEntry(std::string_view line);
SnapshotTrailer ReadTrailer(std::string_view line);
/// Whether the line is a trailer rather than an entry; looks at its first bytes alone.
bool IsTrailer(std::string_view line);

/// What ends the file: a frame that decompressors skip, with the offset of the trailer's frame in it.
using TrailerLocator = std::array<unsigned char, 16>;
TrailerLocator MakeTrailerLocator(unsigned long long offset);
/// Nothing if the bytes are no locator.
std::optional<unsigned long long> ReadTrailerLocator(const TrailerLocator& locator);

} // namespace Agent
