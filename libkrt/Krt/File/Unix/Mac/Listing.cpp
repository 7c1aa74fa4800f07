#include "Krt/File/Unix/Listing.h"

#include "Krt/Util/Retry.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>

namespace Krt::File {

namespace {

struct CloseListing
{
    void operator()(DIR* listing) const { closedir(listing); }
};
using Listing = std::unique_ptr<DIR, CloseListing>;

// Null with errno on failure. It owns a duplicate of the descriptor: opening "." again would take the right
// to search, which reading the names alone does not need.
Listing OpenListing(int directory)
{
    const int duplicate =
        Util::RetryOnInterrupt([&] { return fcntl(directory, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); });
    if (duplicate < 0)
        return nullptr;
    Listing listing(fdopendir(duplicate));
    if (listing == nullptr) {
        const int error = errno;
        close(duplicate);
        errno = error;
    }
    return listing;
}

// Null with errno 0 at the end.
const dirent* NextEntry(DIR* listing)
{
    const dirent* entry;
    do {
        errno = 0;
        entry = readdir(listing);
    } while (entry == nullptr && errno == EINTR);
    return entry;
}

} // namespace

bool ListEntries(int directory, const std::function<bool(const DirectoryEntry&)>& visitor)
{
    const Listing listing = OpenListing(directory);
    if (listing == nullptr)
        return false;
    while (const dirent* entry = NextEntry(listing.get())) {
        if (!IsDots(entry->d_name) && !visitor({YString(entry->d_name), entry->d_type, entry->d_ino}))
            return true;
    }
    return errno == 0;
}

} // namespace Krt::File
