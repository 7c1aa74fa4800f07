#include "Krt/File/Unix/Listing.h"

#include "Krt/Util/Retry.h"

#include <dirent.h>

namespace Krt::File {

// The system's own call works on the descriptor as it is. A DIR would take a duplicate and four calls more,
// for each directory of a walk.
bool ListEntries(int directory, const std::function<bool(const DirectoryEntry&)>& visitor)
{
    alignas(dirent64) char buffer[32768];
    for (;;) {
        const ssize_t size =
            Util::RetryOnInterrupt([&] { return getdents64(directory, buffer, sizeof buffer); });
        if (size <= 0)
            return size == 0 || errno == ENOENT; // a directory that was removed is at its end
        for (ssize_t offset = 0; offset < size;) {
            const auto& entry = *reinterpret_cast<const dirent64*>(buffer + offset);
            offset += entry.d_reclen;
            if (!IsDots(entry.d_name) && !visitor({YString(entry.d_name), entry.d_type, entry.d_ino}))
                return true;
        }
    }
}

} // namespace Krt::File
