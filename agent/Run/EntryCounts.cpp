#include "agent/Run/EntryCounts.h"

#include <sys/stat.h>

namespace Agent {

void EntryCounts::Add(unsigned int mode)
{
    if (S_ISREG(mode))
        ++files;
    else if (S_ISDIR(mode))
        ++directories;
    else if (S_ISLNK(mode))
        ++links;
    else
        ++others;
}

std::string EntryCounts::ByKind() const
{
    return std::to_string(files) + " files, " + std::to_string(directories) + " directories, " +
           std::to_string(links) + " links, " + std::to_string(others) + " others";
}

} // namespace Agent
