// LogBench [--quick]: the costs of logging and failing, in nanoseconds: a site whose channel is disabled, as
// it is executed for every file, compared with the empty loop; a site whose lines are written; and an error
// that is raised and caught.
#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"
#include "bench/Measure.h"

#include <string>

using Krt::MessageType;

namespace {

constexpr int Rounds = 9;

// The compiler must not see that a work does nothing.
void Clobber()
{
    asm volatile("" ::: "memory");
}

template <class Work>
std::function<void()> Repeat(long count, Work work)
{
    return [=] {
        for (long done = 0; done < count; ++done) {
            work();
            Clobber();
        }
    };
}

void RaiseAndCatch()
{
    try {
        KRT_RAISE(Krt::ErrorCode::InvalidArgument, "Index " << 5 << " out of range");
    } catch (const Krt::Exception::YError&) {
    }
}

} // namespace

int main(int argc, char** argv)
{
    const long count = argc > 1 && std::string(argv[1]) == "--quick" ? 10000 : 1000000;
    const Krt::File::YPath path("/usr/share/doc/package/examples/file.txt");
    const auto log = [&] {
        KRT_LOG_FREE(MessageType::SelectionQuery, "Asked for " << path);
    };
    Krt::Log::InstallGlobalLogger();
    Krt::Log::GetGlobalRegistrar()->SetEnabledMessages({});
    const long many = 100 * count;
    const auto disabled = Bench::SecondsInTurns(Rounds, {Repeat(many, log), Repeat(many, [] {})});
    Bench::PrintRow("log.disabled", (disabled[0] - disabled[1]) * 1e9 / static_cast<double>(many), "ns");

    Krt::Log::GetGlobalLogger()->Open(Krt::Log::YLog::Param("/dev/null"));
    Krt::Log::GetGlobalRegistrar()->SetEnabledMessages({"SelectionQuery"});
    const auto scale = 1e9 / static_cast<double>(count);
    Bench::PrintRow("log.enabled", Bench::Seconds(Rounds, Repeat(count, log)) * scale, "ns");
    Bench::PrintRow("error.raised", Bench::Seconds(Rounds, Repeat(count / 10, RaiseAndCatch)) * scale * 10,
                    "ns");
    return 0;
}
