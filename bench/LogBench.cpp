// What logging and failing cost: a site whose channel is disabled, as it stands on the path of every file;
// one whose lines are written; and an error that is raised and caught.
#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"

#include <benchmark/benchmark.h>

using Krt::MessageType;

namespace {

void DisabledSite(benchmark::State& state)
{
    const Krt::File::YPath path("/usr/share/doc/package/examples/file.txt");
    Krt::Log::InstallGlobalLogger();
    Krt::Log::GetGlobalRegistrar()->SetEnabledMessages({});
    for (auto _ : state) {
        KRT_LOG_FREE(MessageType::SelectionQuery, "Asked for " << path);
        benchmark::ClobberMemory();
    }
}

void EnabledSite(benchmark::State& state)
{
    const Krt::File::YPath path("/usr/share/doc/package/examples/file.txt");
    Krt::Log::InstallGlobalLogger();
    if (state.thread_index() == 0) {
        Krt::Log::GetGlobalLogger()->Open(Krt::Log::YLog::Param("/dev/null"));
        Krt::Log::GetGlobalRegistrar()->SetEnabledMessages({"SelectionQuery"});
    }
    for (auto _ : state)
        KRT_LOG_FREE(MessageType::SelectionQuery, "Asked for " << path);
}

void RaiseAndCatch(benchmark::State& state)
{
    for (auto _ : state) {
        try {
            KRT_RAISE(Krt::ErrorCode::InvalidArgument, "Index " << 5 << " out of range");
        } catch (const Krt::Exception::YError& error) {
            benchmark::DoNotOptimize(error.GetCode());
        }
    }
}

BENCHMARK(DisabledSite);
BENCHMARK(EnabledSite)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(RaiseAndCatch);

} // namespace
