#pragma once

/// @file
/// The export macro of libBackup, and libKrt's basic types as names of namespace Backup.

#include "Krt/Exception/ErrorCode.h"
#include "Krt/Log/MessageType.h"

namespace Krt {
class YString;
}

/// Marks a name that libBackup exports; other symbols of the shared library are hidden.
#define BACKUP_API __attribute__((visibility("default")))

namespace Backup {
using Krt::ErrorCode;
using Krt::ExceptionType;
using Krt::MessageType;
using Krt::YString;
} // namespace Backup
