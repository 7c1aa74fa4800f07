#include "Krt/Profile/YProfile.h"

#include "Krt/Environment/Process.h"
#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/File/Unix/Status.h"
#include "Krt/Thread/ThreadSafety.h"

#include <boost/make_shared.hpp>
#include <boost/property_tree/ini_parser.hpp>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>

namespace Krt::Profile {

namespace {

long long Nanoseconds(const timespec& time)
{
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

// What distinguishes the states of a file: which file it is, its size and its times.
class FileStamp
{
public:
    FileStamp() = default;
    explicit FileStamp(const struct stat& status)
        : m_file(status), m_size(status.st_size), m_modified(Nanoseconds(File::WriteTime(status))),
          m_changed(Nanoseconds(File::ChangeTime(status)))
    {}

    // Returns true if the times are at least two seconds past. A younger file could change again within the
    // resolution of its file system's clock, and keep its stamp.
    bool IsSettled() const
    {
        using namespace std::chrono;
        const long long now = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
        return std::max(m_modified, m_changed) <= now - nanoseconds(2s).count();
    }
    friend bool operator==(const FileStamp&, const FileStamp&) = default;

private:
    File::FileId m_file;
    off_t m_size = 0;
    long long m_modified = 0; // nanoseconds since 1970
    long long m_changed = 0;
};

// The result of the last parse, and the state of its file. A state whose times cannot distinguish it from a
// later one is not kept.
struct Cache
{
    Thread::AnnotatedMutex mutex;
    std::string path KRT_GUARDED_BY(mutex);
    FileStamp stamp KRT_GUARDED_BY(mutex);
    boost::shared_ptr<YProfile> profile KRT_GUARDED_BY(mutex);
};

Cache& TheCache()
{
    static Cache& cache = *new Cache; // for readers that are destructors of static objects, too
    return cache;
}

const char* Path()
{
    const char* const named = Environment::IsPrivilegeRaised() ? nullptr : std::getenv("KBAGENT_CONFIG");
    return named != nullptr && *named != '\0' ? named : KRT_SYSTEM_CONFIGURATION;
}

[[noreturn]] void RaiseUnreadable(int error, const std::string& path)
{
    KRT_RAISE_OS_AS("OpenSystem", MessageType::General, error,
                    "Failed to read configuration " << path.c_str());
}

std::string ReadAll(const Util::YUnxHandle& file, const std::string& path)
{
    constexpr std::size_t MostMebibytes = 16;
    auto text = File::ReadWholeFile(file, MostMebibytes << 20);
    if (text.error == EFBIG)
        KRT_RAISE_AS("OpenSystem", MessageType::General, ErrorCode::InvalidArgument,
                     "The configuration " << path.c_str() << " is larger than " << MostMebibytes << " MiB");
    if (!text)
        RaiseUnreadable(text.error, path);
    return std::move(text.value);
}

YProfile::Sections Parse(const std::string& text, const std::string& path)
{
    boost::property_tree::ptree tree;
    try {
        std::istringstream stream(text);
        boost::property_tree::read_ini(stream, tree);
    } catch (const boost::property_tree::ini_parser_error& failure) {
        KRT_RAISE_AS("OpenSystem", MessageType::General, ErrorCode::InvalidArgument,
                     "Damaged configuration " << path.c_str() << ", line " << failure.line() << ": "
                                              << failure.message().c_str());
    }
    YProfile::Sections sections;
    for (const auto& [name, entry] : tree) {
        if (entry.empty()) // a key before the first section, or a section without keys
            sections[YString()][YString(std::string_view(name))] = YString(std::string_view(entry.data()));
        for (const auto& [key, value] : entry)
            sections[YString(std::string_view(name))][YString(std::string_view(key))] =
                YString(std::string_view(value.data()));
    }
    return sections;
}

const boost::shared_ptr<YProfile>& EmptyProfile()
{
    static const auto& empty = *new auto(boost::make_shared<YProfile>(YProfile::Sections()));
    return empty;
}

// The file's state is read before its text, so that the next opening notices a change in between.
boost::shared_ptr<YProfile> Load(Cache& cache, const std::string& path) KRT_REQUIRES(cache.mutex)
{
    const auto file = Util::OpenHandle(path.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK);
    if (file.error == ENOENT)
        return EmptyProfile();
    if (!file)
        RaiseUnreadable(file.error, path);
    struct stat status;
    if (const int error = Util::CallSystem([&] { return fstat(file.value.Get(), &status); }).error)
        RaiseUnreadable(error, path);
    // The file is read again and again, and a FIFO would wait for a writer each time.
    if (S_ISFIFO(status.st_mode))
        KRT_RAISE_AS("OpenSystem", MessageType::General, ErrorCode::InvalidArgument,
                     "The configuration " << path.c_str() << " is a pipe");
    const FileStamp stamp(status);
    const bool isSettled = stamp.IsSettled();
    const auto profile = boost::make_shared<YProfile>(Parse(ReadAll(file.value, path), path));
    cache.profile.reset();
    if (isSettled) {
        cache.path = path;
        cache.stamp = stamp;
        cache.profile = profile;
    }
    return profile;
}

} // namespace

YString GetSystemPath()
{
    return YString(Path());
}

boost::shared_ptr<YProfile> OpenSystem()
{
    const std::string path = Path();
    // Called for each file that a walk captures, and most systems have no such file: one call of stat, and no
    // lock.
    struct stat status;
    const int error = Util::CallSystem([&] { return stat(path.c_str(), &status); }).error;
    if (error == ENOENT)
        return EmptyProfile();
    Cache& cache = TheCache();
    const Thread::AnnotatedLock lock(cache.mutex);
    if (error == 0 && cache.profile != nullptr && cache.path == path && FileStamp(status) == cache.stamp)
        return cache.profile;
    return Load(cache, path);
}

} // namespace Krt::Profile
