// LogBench [--quick]: the costs of logging and failing, in nanoseconds: a site whose channel is disabled, as
// it is executed for every file, compared with the empty loop; a site whose lines are written, to /dev/null
// and, by one thread and by four, to a file, compared with a plain snprintf and write of the same line; and
// an error that is raised and caught.
#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"
#include "bench/Measure.h"

#include "Krt/Thread/Thread.h"

#include <fcntl.h>
#include <filesystem>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

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

// `count` lines in all, by `threads` threads.
template <class Log>
std::function<void()> ByThreads(unsigned int threads, long count, Log log)
{
    return [=] {
        std::vector<std::thread> running;
        for (unsigned int i = 0; i < threads; ++i)
            running.emplace_back(Repeat(count / threads, log));
        for (std::thread& thread : running)
            thread.join();
    };
}

// Writes a line as a log has it. A failed or short write adds a millisecond, so it shows in the
// figure.
void WritePlain(int file, const Krt::File::YPath& path)
{
    char line[256];
    const int size = std::snprintf(
        line, sizeof line, "%s.%03d%s TRACE 0x%08x %s: Asked for %s\n", "2026-01-01T00:00:00", 123, "+00:00",
        static_cast<unsigned int>(Krt::Thread::GetThreadId()), "SelectionQuery", path.CStr());
    if (write(file, line, static_cast<std::size_t>(size)) != size)
        usleep(1000);
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
    const std::string file =
        std::filesystem::temp_directory_path() / ("log-bench-" + std::to_string(getpid()));
    Krt::Log::GetGlobalLogger()->Open(Krt::Log::YLog::Param(file.c_str()));
    const std::string plainFile = file + ".plain";
    const int plain = open(plainFile.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0640);
    const auto writePlain = [&] {
        WritePlain(plain, path);
    };
    const double lines = static_cast<double>(count) / 10;
    for (const unsigned int threads : {1, 4}) {
        const std::string suffix = threads == 1 ? "" : ".four_threads";
        const auto seconds = Bench::SecondsInTurns(
            Rounds, {ByThreads(threads, count / 10, log), ByThreads(threads, count / 10, writePlain)});
        Bench::PrintRow(("log.line" + suffix).c_str(), seconds[0] * 1e9 / lines, "ns");
        Bench::PrintRow(("log.line.plain" + suffix).c_str(), seconds[1] * 1e9 / lines, "ns");
    }
    close(plain);
    std::filesystem::remove(plainFile);
    Krt::Log::GetGlobalLogger()->Close();
    std::filesystem::remove(file);
    Bench::PrintRow("error.raised", Bench::Seconds(Rounds, Repeat(count / 10, RaiseAndCatch)) * scale * 10,
                    "ns");
    return 0;
}
