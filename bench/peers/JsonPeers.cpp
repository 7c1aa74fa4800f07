// RecordPeers [--quick] [--only NAME] [RECORDS]: JSON records read and written here and by other libraries,
// in turns and in one process; and a large document by the others. Prints nanoseconds a record or a member, a
// figure a line. With --only the one work runs for a profiler, once over all records.
#include "Backup/File/YUnixFileMetadata.h"
#include "bench/Measure.h"
#include "bench/Records.h"

#include "Krt/Crypto/Base64.h"
#include "Krt/JSON/YValue.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <nlohmann/json.hpp>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace {

using Backup::File::YUnixFileMetadata;
using Krt::JSON::YValue;

constexpr int Rounds = 7;
constexpr std::size_t WarmRecords = 20;

// What a program without this library would read a record into.
struct PlainRecord
{
    struct Component
    {
        unsigned int classId;
        unsigned short subclassId;
        std::string name;
        std::string displayName;
    };

    explicit PlainRecord(const nlohmann::json& json);
    nlohmann::json AsJson() const;

    std::string type;
    unsigned long long fileSize;
    unsigned long long changed;
    unsigned long long written;
    unsigned long long accessed;
    unsigned int mode;
    bool isDirectory;
    unsigned int userId;
    unsigned int groupId;
    std::vector<Component> path;
    std::string target;
    Krt::File::ExtendedAttributeMap attributes;
};

PlainRecord::PlainRecord(const nlohmann::json& json)
    : type(json.at("metadata_type").get<std::string>()),
      fileSize(json.at("file_size").get<unsigned long long>()),
      changed(json.at("last_changed_time").get<unsigned long long>()),
      written(json.at("last_write_time").get<unsigned long long>()),
      accessed(json.at("last_access_time").get<unsigned long long>()),
      mode(json.at("mode_flags").get<unsigned int>()),
      isDirectory(json.at("is_directory").get<unsigned int>() != 0),
      userId(json.at("user_id").get<unsigned int>()), groupId(json.at("group_id").get<unsigned int>()),
      target(json.at("symbolic_link_target").get<std::string>())
{
    for (const nlohmann::json& component : json.at("file_path").at("components"))
        path.push_back({component.at("class_id").get<unsigned int>(),
                        component.at("subclass_id").get<unsigned short>(),
                        component.at("name").get<std::string>(), component.value("display_name", "")});
    for (const nlohmann::json& attribute : json.at("extended_attributes"))
        attributes.insert_or_assign(
            attribute.at("name").get_ref<const std::string&>().c_str(),
            Krt::Crypto::Base64DecodeData(attribute.at("value").get_ref<const std::string&>().c_str()));
}

nlohmann::json PlainRecord::AsJson() const
{
    nlohmann::json components = nlohmann::json::array();
    for (const Component& component : path) {
        nlohmann::json json = {
            {"class_id", component.classId}, {"subclass_id", component.subclassId}, {"name", component.name}};
        if (!component.displayName.empty())
            json["display_name"] = component.displayName;
        components.push_back(std::move(json));
    }
    nlohmann::json elements = nlohmann::json::array();
    for (const auto& [name, value] : attributes)
        elements.push_back({{"name", name.Bytes()}, {"value", Krt::Crypto::Base64EncodeData(value).Bytes()}});
    nlohmann::json json;
    json["metadata_type"] = type;
    json["file_size"] = fileSize;
    json["last_changed_time"] = changed;
    json["last_write_time"] = written;
    json["last_access_time"] = accessed;
    json["mode_flags"] = mode;
    json["is_directory"] = static_cast<unsigned int>(isDirectory);
    json["user_id"] = userId;
    json["group_id"] = groupId;
    json["file_path"]["components"] = std::move(components);
    json["symbolic_link_target"] = target;
    json["extended_attributes"] = std::move(elements);
    return json;
}

// Sums up what came out, so that no work can be left out.
std::size_t g_sum = 0;

// One work on each of the inputs.
template <class Inputs, class Work>
std::function<void()> OnEach(const Inputs& inputs, Work work)
{
    return [&inputs, work] {
        for (const auto& input : inputs)
            g_sum += work(input);
    };
}

struct Work
{
    const char* name;
    std::function<void()> run;
};

std::vector<Work> ReadingWorks(const std::vector<std::string>& texts)
{
    return {
        {"record.parse.krt",
         OnEach(texts, [](const std::string& text) { return YValue::Parse(text)->IsArray(); })},
        {"record.parse.rapidjson", OnEach(texts,
                                          [](const std::string& text) {
                                              rapidjson::Document document;
                                              document.Parse(text.data(), text.size());
                                              return document.IsArray();
                                          })},
        {"record.parse.boost",
         OnEach(texts, [](const std::string& text) { return boost::json::parse(text).is_array(); })},
        {"record.parse.nlohmann",
         OnEach(texts, [](const std::string& text) { return nlohmann::json::parse(text).is_array(); })},
        {"record.read.krt", OnEach(texts,
                                   [](const std::string& text) {
                                       return YUnixFileMetadata(YValue::Parse(text)->AsObject()).GetUserId();
                                   })},
        {"record.read.nlohmann",
         OnEach(texts,
                [](const std::string& text) { return PlainRecord(nlohmann::json::parse(text)).userId; })},
    };
}

// What text is made of. A few records, again and again, since a record is written while it is warm.
struct Writable
{
    explicit Writable(std::size_t count) : records(Bench::MakeRecords(count))
    {
        for (const std::string& text : Bench::TextOf(records)) {
            krt.push_back(YValue::Parse(text));
            boost.push_back(boost::json::parse(text));
            nlohmann.push_back(nlohmann::json::parse(text));
            rapidjson.emplace_back().Parse(text.data(), text.size());
            plain.emplace_back(nlohmann.back());
        }
    }

    std::vector<YUnixFileMetadata> records;
    std::vector<PlainRecord> plain;
    std::vector<boost::shared_ptr<YValue>> krt;
    std::vector<boost::json::value> boost;
    std::vector<nlohmann::json> nlohmann;
    std::vector<rapidjson::Document> rapidjson;
};

std::size_t TextSize(const rapidjson::Document& tree)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    tree.Accept(writer);
    return buffer.GetSize();
}

std::vector<Work> WritingWorks(const Writable& from)
{
    return {
        {"record.write.krt",
         OnEach(from.records,
                [](const YUnixFileMetadata& record) {
                    return YValue::FromObject(record.ToJSON()).Stringify(true).Bytes().size();
                })},
        {"record.direct.krt", OnEach(from.records,
                                     [](const YUnixFileMetadata& record) {
                                         std::string text;
                                         record.StringifyTo(text);
                                         return text.size();
                                     })},
        {"record.write.nlohmann",
         OnEach(from.plain, [](const PlainRecord& record) { return record.AsJson().dump().size(); })},
        {"record.text.krt",
         OnEach(from.krt,
                [](const boost::shared_ptr<YValue>& tree) { return tree->Stringify(true).Bytes().size(); })},
        {"record.text.boost",
         OnEach(from.boost,
                [](const boost::json::value& tree) { return boost::json::serialize(tree).size(); })},
        {"record.text.nlohmann",
         OnEach(from.nlohmann, [](const nlohmann::json& tree) { return tree.dump().size(); })},
        {"record.text.rapidjson", OnEach(from.rapidjson, TextSize)},
    };
}

// Nanoseconds of each work on one input.
using Figures = std::map<std::string, double>;

Figures Measure(const std::vector<Work>& works, std::size_t inputs, std::size_t records)
{
    const std::size_t repetitions = records / inputs;
    std::vector<std::function<void()>> runs;
    for (const Work& work : works)
        runs.push_back([&work, repetitions] {
            for (std::size_t i = 0; i < repetitions; ++i)
                work.run();
        });
    const std::vector<double> seconds = Bench::SecondsInTurns(Rounds, runs);
    Figures figures;
    for (std::size_t i = 0; i < works.size(); ++i) {
        figures[works[i].name] = seconds[i] * 1e9 / static_cast<double>(repetitions * inputs);
        Bench::PrintRow(works[i].name, figures[works[i].name], "ns");
    }
    return figures;
}

// How many times as fast as the peer's the library's work is.
void Compare(const Figures& figures, const char* name, const std::string& ours, const std::string& peers)
{
    Bench::PrintRow(name, figures.at(peers) / figures.at(ours), "x");
}

// A peer's part of what RecordBench measures.
template <class Document, class Parse>
void MeasureLargeDocument(const std::string& peer, std::size_t members, Parse parse)
{
    const std::string text = Bench::LargeDocument(members);
    std::vector<double> parsing, releasing;
    for (int round = 0; round < Rounds; ++round) {
#ifdef __GLIBC__
        const std::size_t before = Bench::AllocatedBytes();
#endif
        auto document = std::make_unique<Document>();
        parsing.push_back(Bench::Seconds(1, [&] { parse(*document, text); }));
#ifdef __GLIBC__
        if (round == 0)
            Bench::PrintRow(("json.memory." + peer).c_str(),
                            static_cast<double>(Bench::AllocatedBytes() - before) /
                                static_cast<double>(members),
                            "bytes");
#endif
        releasing.push_back(Bench::Seconds(1, [&] { document.reset(); }));
    }
    const double scale = 1e9 / static_cast<double>(members);
    Bench::PrintRow(("json.parse." + peer).c_str(), Bench::Median(parsing) * scale, "ns");
    Bench::PrintRow(("json.release." + peer).c_str(), Bench::Median(releasing) * scale, "ns");
}

void MeasureLargeDocuments(std::size_t members)
{
    MeasureLargeDocument<rapidjson::Document>("rapidjson", members,
                                              [](rapidjson::Document& document, const std::string& text) {
                                                  document.Parse(text.data(), text.size());
                                              });
    MeasureLargeDocument<boost::json::value>(
        "boost", members,
        [](boost::json::value& document, const std::string& text) { document = boost::json::parse(text); });
    MeasureLargeDocument<nlohmann::json>(
        "nlohmann", members,
        [](nlohmann::json& document, const std::string& text) { document = nlohmann::json::parse(text); });
}

} // namespace

int main(int argc, char** argv)
{
    std::size_t count = 100000;
    const char* only = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0)
            count = 2000;
        else if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc)
            only = argv[++i];
        else
            count = std::strtoul(argv[i], nullptr, 10);
    }
    const std::vector<std::string> texts = Bench::TextOf(Bench::MakeRecords(count));
    const Writable writable(WarmRecords);
    const std::vector<Work> reading = ReadingWorks(texts);
    const std::vector<Work> writing = WritingWorks(writable);
    if (only) {
        for (const std::vector<Work>& works : {reading, writing})
            for (const Work& work : works)
                if (std::strcmp(work.name, only) == 0)
                    work.run();
        return 0;
    }
    const Figures read = Measure(reading, count, count);
    Compare(read, "record.parse", "record.parse.krt", "record.parse.rapidjson");
    Compare(read, "record.read", "record.read.krt", "record.read.nlohmann");
    const Figures written = Measure(writing, WarmRecords, count);
    Compare(written, "record.write", "record.write.krt", "record.write.nlohmann");
    Compare(written, "record.text", "record.text.krt", "record.text.boost");
    // Text without a tree, compared with the peers' text from an existing tree.
    Compare(written, "record.direct.nlohmann", "record.direct.krt", "record.text.nlohmann");
    Compare(written, "record.direct.boost", "record.direct.krt", "record.text.boost");
    MeasureLargeDocuments(count < 100000 ? 30000 : 7000000);
    return g_sum == 1;
}
