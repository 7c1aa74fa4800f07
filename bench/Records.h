// Records of the files of a made-up tree, and a large document, the same each time.
#pragma once

#include "Backup/File/YUnixFileMetadata.h"

#include <string>
#include <vector>

namespace Bench {

std::vector<Backup::File::YUnixFileMetadata> MakeRecords(std::size_t count);

/// Each record's JSON text.
std::vector<std::string> TextOf(const std::vector<Backup::File::YUnixFileMetadata>& records);

/// A JSON array of many small objects, with so many members in all.
std::string LargeDocument(std::size_t members);

} // namespace Bench
