// EntryCounts: what a run stored or made, for its summary.
#pragma once

#include <string>

namespace Agent {

struct EntryCounts
{
    unsigned long long files = 0;
    unsigned long long directories = 0;
    unsigned long long links = 0;
    unsigned long long others = 0;
    unsigned long long bytes = 0; ///< of contents

    unsigned long long Entries() const { return files + directories + links + others; }
    /// Counts an entry by the type in its st_mode word.
    void Add(unsigned int mode);
    /// "1 files, 2 directories, 0 links, 0 others".
    std::string ByKind() const;
};

} // namespace Agent
