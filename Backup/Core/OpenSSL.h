// What the library takes from OpenSSL.
#pragma once

#include "Backup/Export.h"
#include "Krt/Memory/YHeap.h"

namespace Backup::OpenSSL {

/// `count` random bytes fit for secrets. Any thread. Raises CryptoFailure with OpenSSL's own text, and
/// InvalidArgument for a negative count.
BACKUP_API Krt::Memory::YHeap<unsigned char> RandomBytes(int count);

} // namespace Backup::OpenSSL
