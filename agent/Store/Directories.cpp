#include "agent/Store/Directories.h"

#include "Krt/Exception/YError.h"

#include <cerrno>

namespace Agent {

void MakeDirectoryUnlessThere(const Krt::File::YDirectory& parent, const Krt::YString& name,
                              unsigned int mode)
{
    try {
        parent.MakeDirectory(name, mode);
    } catch (const Krt::Exception::YError& error) {
        if (error.GetOsError() != EEXIST)
            throw;
    }
}

} // namespace Agent
