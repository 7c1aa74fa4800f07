// RecordBench [--quick]: what needs no peer of the roads of records and rules through JSON, a figure a line.
#include "Backup/File/YSelectionManager.h"
#include "Backup/File/YUnixFileMetadata.h"
#include "bench/Measure.h"
#include "bench/Records.h"
#include "testing/LegacyHeaderBuilder.h"

#include "Krt/JSON/YValue.h"

#include <string_view>

namespace {

using Backup::YJobPath;
using Backup::File::YMetadataBase;
using Backup::File::YSelectionManager;
using Backup::File::YUnixFileMetadata;
using Rule = Backup::File::YSelectionDescriptor;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

constexpr int Rounds = 5;

std::size_t g_sum = 0; // of what came out, so that no work can be left out

// Of a few documents again and again: one is warm when its turn comes, having just been read.
void MeasureLegacyHeaders(std::size_t count)
{
    constexpr std::size_t Documents = 100;
    std::vector<YObject> documents;
    for (const YUnixFileMetadata& record : Bench::MakeRecords(Documents)) {
        Testing::LegacyUnixHeader header;
        header.names = "/" + record.GetFilePath(0).GetDisplayPath().Bytes() + '\0';
        documents.push_back(Testing::LegacyDocument("unix", header.Bytes()));
    }
    const auto map = [](const Krt::File::YPath& path, bool isDirectory) {
        return YJobPath::FromFilePath(YJobPath(), path, isDirectory);
    };
    const double seconds = Bench::Seconds(Rounds, [&] {
        for (std::size_t i = 0; i < count; ++i)
            g_sum += YMetadataBase::ConstructFromJson(documents[i % Documents], map)->GetFilePathCount();
    });
    Bench::PrintRow("record.legacy", static_cast<double>(count) / seconds, "/s");
}

void MeasureRules(std::size_t count)
{
    // No rule covers another, so that all stay.
    YSelectionManager rules;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string directory = "/home/user/documents/folder" + std::to_string(i % 5000);
        const std::string name = "report " + std::to_string(i) + ".txt";
        rules.Add(directory.c_str(), Krt::Match::ExactDescriptor(name.c_str(), true), Rule::NonRecursive,
                  i % 5 == 0 ? Rule::Include : Rule::Exclude, true);
    }
    const double seconds = Bench::Seconds(Rounds, [&] {
        std::string text;
        YValue::FromObject(rules.ToJSON("/")).StringifyTo(text);
        YSelectionManager again;
        again.FromJSON(YValue::Parse(text)->AsObject());
        g_sum += text.size();
    });
    Bench::PrintRow("rules.json", seconds, "s");
}

// All records as one array, in megabytes of text a second.
void MeasureDocument(std::size_t count)
{
    std::string text = "[";
    for (const std::string& record : Bench::TextOf(Bench::MakeRecords(count)))
        text += record + ',';
    text.back() = ']';
    const auto document = YValue::Parse(text);
    const auto seconds =
        Bench::SecondsInTurns(Rounds, {[&] { g_sum += YValue::Parse(text)->AsArray().size(); },
                                       [&] {
                                           g_sum += document->Stringify(true).Bytes().size();
                                       }});
    Bench::PrintRow("document.parse", static_cast<double>(text.size()) / 1e6 / seconds[0], "MB/s");
    Bench::PrintRow("document.text", static_cast<double>(text.size()) / 1e6 / seconds[1], "MB/s");
}

// Many small objects, for each of their members.
void MeasureLargeDocument(std::size_t members)
{
    const std::string text = Bench::LargeDocument(members);
    std::vector<double> parsing, releasing;
    for (int round = 0; round < Rounds; ++round) {
#ifdef __GLIBC__
        const std::size_t before = Bench::AllocatedBytes();
#endif
        boost::shared_ptr<YValue> document;
        parsing.push_back(Bench::Seconds(1, [&] { document = YValue::Parse(text); }));
#ifdef __GLIBC__
        if (round == 0)
            Bench::PrintRow("json.memory",
                            static_cast<double>(Bench::AllocatedBytes() - before) /
                                static_cast<double>(members),
                            "bytes");
#endif
        releasing.push_back(Bench::Seconds(1, [&] { document.reset(); }));
    }
    const double scale = 1e9 / static_cast<double>(members);
    Bench::PrintRow("json.parse", Bench::Median(parsing) * scale, "ns");
    Bench::PrintRow("json.release", Bench::Median(releasing) * scale, "ns");
}

} // namespace

int main(int argc, char** argv)
{
    const bool quick = argc > 1 && std::string_view(argv[1]) == "--quick";
    MeasureLegacyHeaders(quick ? 2000 : 100000);
    MeasureRules(quick ? 2000 : 100000);
    MeasureDocument(quick ? 2000 : 100000);
    MeasureLargeDocument(quick ? 30000 : 7000000);
    return g_sum == 1;
}
