// A first byte tells what the others are: a file of the store as it stands, or the lines of one, which get
// compressed, and on demand an end that proves them.
#include "fuzz/Input.h"

#include "testing/StoreFiles.h"
#include "testing/TemporaryDirectory.h"

#include "Krt/Util/YUnxHandle.h"

#include <fcntl.h>

namespace {

using Fuzz::Expect;

void WriteLines(Agent::ZstdWriter& writer, const std::string& lines, bool proved)
{
    writer.Append(lines.data(), lines.size());
    writer.EndFrame();
    if (!proved)
        return;
    Agent::Sha256 hash;
    hash.Add(lines.data(), lines.size());
    Agent::SnapshotTrailer trailer;
    trailer.entries = static_cast<unsigned long long>(std::count(lines.begin(), lines.end(), '\n')) - 1;
    trailer.digest = hash.End();
    std::string end;
    Agent::WriteLine(trailer, end);
    const Agent::TrailerLocator locator = Agent::MakeTrailerLocator(writer.GetWritten());
    writer.WriteFrame(end.data(), end.size());
    writer.Write(locator.data(), locator.size());
}

// Entries are only believed once the whole is proved; then there are as many as it says.
void Read(const Agent::Store& store)
{
    Agent::SnapshotReader reader(store, "x");
    (void)Fuzz::Raises([&] { reader.PeekTrailer(); });
    const Agent::SnapshotTrailer trailer = reader.Verify();
    std::string_view line;
    for (unsigned long long i = 0; i < trailer.entries; ++i) {
        Expect(reader.NextLine(line), "an entry that was counted");
        Agent::SnapshotEntry entry;
        if (Fuzz::Raises([&] { entry = Agent::ReadEntry(line); }))
            continue;
        const auto write = [](const Agent::SnapshotEntry& read) {
            std::string text;
            Agent::WriteLine(Testing::TextOf(read.record), read, text);
            return text;
        };
        const std::string once = write(entry);
        std::string twice;
        Expect(!Fuzz::Raises([&] { twice = write(Agent::ReadEntry(once.substr(0, once.size() - 1))); }) &&
                   once == twice,
               "an entry is written and read again unchanged");
    }
    Expect(!reader.NextLine(line), "the end behind the last entry");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Testing::TemporaryDirectory directory;
    static const Agent::Store store = Agent::Store::OpenOrCreate(directory / "store");
    static Agent::ZstdWriter writer;
    if (size == 0 || size > 1024) // a few bytes can stand for megabytes of lines
        return 0;
    const std::string bytes(data + 1, data + size), path = directory / "store/snapshots/x";
    {
        const auto file = Krt::Util::OpenHandle(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        writer.Begin(file.value);
        if ((data[0] & 1) != 0)
            writer.Write(bytes.data(), bytes.size());
        else
            WriteLines(writer, bytes, (data[0] & 2) != 0);
    }
    (void)Fuzz::Raises([&] { Read(store); });
    return 0;
}
