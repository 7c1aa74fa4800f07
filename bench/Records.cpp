#include "bench/Records.h"

#include "Krt/JSON/YValue.h"

#include <iterator>
#include <random>

namespace Bench {

namespace {

using Backup::YJobPath;
using Backup::File::YUnixFileMetadata;

constexpr unsigned int Directory = 0040755;
constexpr unsigned int Link = 0120777;
constexpr unsigned int File = 0100644;

class RecordMaker
{
public:
    YUnixFileMetadata Make(std::size_t index);

private:
    // A number below the limit; the engine's numbers are the same everywhere, those of a distribution aren't.
    std::size_t Below(std::size_t limit) { return m_random() % limit; }
    std::string Name();

    std::mt19937 m_random{1};
};

std::string RecordMaker::Name()
{
    static constexpr const char* Parts[] = {"lib",  "share", "doc", "py",    "linux", "node",  "modules",
                                            "test", "src",   "-",   "_",     "core",  "2.1",   "x",
                                            "data", "man",   "ru",  "cache", "é",     "config"};
    std::string name;
    for (std::size_t parts = 1 + Below(4); parts > 0; --parts)
        name += Parts[Below(std::size(Parts))];
    return name;
}

YUnixFileMetadata RecordMaker::Make(std::size_t index)
{
    YUnixFileMetadata record;
    const unsigned int mode = index % 12 == 0 ? Directory : index % 23 == 0 ? Link : File;
    const unsigned long long changed = 1700000000 + Below(80000000);
    record.SetFileSize(Below(3) == 0 ? 4096 : Below(1 << 24));
    record.SetLastChangedTime(changed);
    record.SetLastWriteTime(changed - Below(10000000));
    record.SetModeFlags(mode);
    record.SetIsDirectoryForRestore(mode == Directory);
    record.SetUserId(Below(2) * 1000);
    record.SetGroupId(record.GetUserId());
    std::string path;
    for (std::size_t depth = 5 + Below(5); depth > 0; --depth)
        path += "/" + Name();
    if (mode == File)
        path += ".txt";
    record.SetFilePath(YJobPath::FromFilePath(YJobPath(), path.c_str(), mode == Directory));
    if (mode == Link)
        record.SetSymbolicLinkTarget(("../" + Name()).c_str());
    if (index % 50 == 0)
        record.SetExtendedAttributeMap({{"user.origin", {"far-anchor", 10}}});
    return record;
}

} // namespace

std::vector<YUnixFileMetadata> MakeRecords(std::size_t count)
{
    RecordMaker maker;
    std::vector<YUnixFileMetadata> records;
    records.reserve(count);
    while (records.size() < count)
        records.push_back(maker.Make(records.size()));
    return records;
}

std::vector<std::string> TextOf(const std::vector<YUnixFileMetadata>& records)
{
    std::vector<std::string> texts;
    texts.reserve(records.size());
    for (const YUnixFileMetadata& record : records)
        Krt::JSON::YValue::FromObject(record.ToJSON()).StringifyTo(texts.emplace_back());
    return texts;
}

std::string LargeDocument(std::size_t members)
{
    std::string text = "[";
    for (std::size_t i = 0; i < members / 3; ++i) {
        const std::string number = std::to_string(1000000 + i);
        text += R"({"identifier":)" + number + R"(,"name":"name of the entry )" + number + R"(","is_file":)" +
                (i % 2 == 0 ? "true" : "false") + "},";
    }
    text.back() = ']';
    return text;
}

} // namespace Bench
