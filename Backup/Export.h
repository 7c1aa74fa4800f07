// Marks what libBackup exports; everything else in the shared object is hidden.
#pragma once

#include "Krt/Exception/ErrorCode.h"
#include "Krt/Log/MessageType.h"

namespace Krt {
class YString;
}

/// Stands in front of every name that libBackup exports.
#define BACKUP_API __attribute__((visibility("default")))

namespace Backup {
using Krt::ErrorCode;
using Krt::ExceptionType;
using Krt::MessageType;
using Krt::YString;
} // namespace Backup
