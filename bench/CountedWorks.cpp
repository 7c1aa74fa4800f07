// CountedWorks NAME: repeats one of the operations that are executed for every file, with collecting enabled
// only for these; prints the number of repetitions. See tests/performance/instructions.sh.
#include "Backup/File/YSelectionManager.h"
#include "bench/Records.h"
#include "bench/SelectionInputs.h"
#include "testing/LegacyHeaderBuilder.h"

#include "Krt/JSON/YValue.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Thread/YReadWriteMutex.h"

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <valgrind/callgrind.h>

namespace {

using Backup::YJobPath;
using Backup::File::YMetadataBase;
using Backup::File::YSelectionManager;
using Backup::File::YUnixFileMetadata;
using Krt::JSON::YValue;
using Krt::Time::YDuration;

// The first time fills what is kept for the next one.
void Count(int times, const std::function<void(int)>& work)
{
    work(0);
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < times; ++i)
        work(i);
    CALLGRIND_TOGGLE_COLLECT;
    std::printf("%d\n", times);
}

template <std::size_t RuleCount>
void Query()
{
    constexpr int Paths = 2000;
    const Bench::SelectionInputs inputs(Paths);
    YSelectionManager tree;
    for (const auto& rule : inputs.MixedRules(RuleCount))
        tree.Add(rule.AsDescriptor());
    Count(Paths, [&](int i) { tree.GetPathSelectionType(inputs.GetPaths()[i].c_str()); });
}

void NestedReadLock()
{
    const Krt::Thread::YReadWriteMutex mutex;
    const auto outer = mutex.ReadLock(YDuration::Zero());
    Count(1000, [&](int) { mutex.ReadLock(YDuration::Zero()); });
}

void DisabledLogSite()
{
    Count(1000, [](int i) { KRT_LOG_FREE(Krt::MessageType::SelectionQuery, "Asked for " << i); });
}

void RecordFromText()
{
    const auto texts = Bench::TextOf(Bench::MakeRecords(100));
    Count(100, [&](int i) { YUnixFileMetadata(YValue::Parse(texts[i])->AsObject()); });
}

void RecordToText()
{
    const auto records = Bench::MakeRecords(100);
    std::string text;
    Count(100, [&](int i) {
        text.clear();
        records[i].StringifyTo(text);
    });
}

void LegacyHeader()
{
    Testing::LegacyUnixHeader header;
    header.names = std::string("/usr/share/doc/package/file.txt") + '\0';
    const auto document = Testing::LegacyDocument("unix", header.Bytes());
    Count(100, [&](int) {
        YMetadataBase::ConstructFromJson(document, [](const Krt::File::YPath& path, bool isDirectory) {
            return YJobPath::FromFilePath(YJobPath(), path, isDirectory);
        });
    });
}

} // namespace

int main(int argc, char** argv)
{
    const std::map<std::string, void (*)()> works = {
        {"query.10", Query<10>},
        {"query.10000", Query<10000>},
        {"lock.nested", NestedReadLock},
        {"log.disabled", DisabledLogSite},
        {"record.from.text", RecordFromText},
        {"record.to.text", RecordToText},
        {"legacy.header", LegacyHeader},
    };
    Krt::Log::InstallGlobalLogger();
    Krt::Log::GetGlobalRegistrar()->SetEnabledMessages({});
    const auto work = argc == 2 ? works.find(argv[1]) : works.end();
    if (work == works.end()) {
        for (const auto& each : works)
            std::printf("%s\n", each.first.c_str());
        return 2;
    }
    work->second();
    return 0;
}
