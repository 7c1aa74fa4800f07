#include "Krt/File/Unix/Listing.h"

#include "Krt/Util/SystemCall.h"

#include <dirent.h>

namespace Krt::File {

// The system's own call works on the descriptor as it is. A DIR would take a duplicate and four calls more,
// for each directory of a walk.
int ListEntries(int directory, const std::function<bool(const DirectoryEntry&)>& visitor)
{
    alignas(dirent64) char buffer[32768];
    for (;;) {
        const auto size = Util::CallSystem([&] { return getdents64(directory, buffer, sizeof buffer); });
        if (size.value <= 0)
            return size.error == ENOENT ? 0 : size.error; // a directory that was removed is at its end
        for (ssize_t offset = 0; offset < size.value;) {
            const auto& entry = *reinterpret_cast<const dirent64*>(buffer + offset);
            offset += entry.d_reclen;
            if (!IsDots(entry.d_name) && !visitor({YString(entry.d_name), entry.d_type, entry.d_ino}))
                return 0;
        }
    }
}

} // namespace Krt::File
