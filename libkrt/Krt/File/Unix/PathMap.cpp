#include "Krt/File/PathMap.h"

#include "Krt/Environment/Process.h"
#include "Krt/Exception/Raise.h"

#include <cstdlib>

namespace Krt::File {

YPath GetPathMap(unsigned int index)
{
    KRT_RAISE_UNLESS(index == TemporaryFiles, ErrorCode::InvalidArgument,
                     "No well-known directory has the number " << index);
    const char* const named = Environment::IsPrivilegeRaised() ? nullptr : std::getenv("TMPDIR");
    return named != nullptr && *named == '/' ? named : "/tmp";
}

} // namespace Krt::File
