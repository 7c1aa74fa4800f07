#include "Krt/File/Unix/Directories.h"

#include "Krt/Util/SystemCall.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

namespace Krt::File {

namespace {

struct CloseListing
{
    void operator()(DIR* listing) const { closedir(listing); }
};
using Listing = std::unique_ptr<DIR, CloseListing>;

// It owns a duplicate of the descriptor: opening "." again would take the right
// to search, which reading the names alone does not need.
Util::OsResult<Listing> OpenListing(int directory)
{
    const auto duplicate =
        Util::CallSystem([&] { return fcntl(directory, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); });
    if (!duplicate)
        return {nullptr, duplicate.error};
    if (DIR* const opened = fdopendir(duplicate.value))
        return {Listing(opened), 0};
    const int error = errno;
    close(duplicate.value);
    return {nullptr, error};
}

// Null with error 0 at the end.
Util::OsResult<const dirent*> NextEntry(DIR* listing)
{
    const dirent* entry;
    do {
        errno = 0;
        entry = readdir(listing);
    } while (entry == nullptr && errno == EINTR);
    return {entry, entry == nullptr ? errno : 0};
}

} // namespace

// The caller goes component by component.
Util::OsResult<Util::YUnxHandle> OpenBeneath(int, const char*)
{
    return {Util::YUnxHandle(), ENOSYS};
}

Util::OsResult<int> SetModeOfDirectory(int directory, mode_t mode)
{
    return Util::CallSystem([&] { return fchmod(directory, mode); });
}

int ListEntries(int directory, const std::function<bool(const DirectoryEntry&)>& visitor)
{
    const auto listing = OpenListing(directory);
    if (!listing)
        return listing.error;
    for (;;) {
        const auto next = NextEntry(listing.value.get());
        if (next.value == nullptr)
            return next.error;
        const dirent& entry = *next.value;
        if (!IsDots(entry.d_name) && !visitor({YString(entry.d_name), entry.d_type, entry.d_ino}))
            return 0;
    }
}

} // namespace Krt::File
