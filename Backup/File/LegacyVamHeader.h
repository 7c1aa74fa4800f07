#pragma once

/// @file
/// The binary metadata headers of older backup sets, as they are in the buffer: packed, little-endian and
/// unaligned. They are only read. A header is followed by its list of names, which ends at an offset in the
/// base header. A Unix header is also followed by its extended attributes.

#include "Krt/JSON/YObject.h"
#include "Krt/Memory/YHeap.h"

#include <boost/endian/arithmetic.hpp>

#include <cstddef>
#include <optional>

namespace Backup::File::LegacyVamHeader {

using boost::endian::little_uint32_t;
using boost::endian::little_uint64_t;

/// The beginning of each header.
struct _tagBASE_HDR
{
    little_uint32_t type;
    unsigned char unread[12];
    little_uint32_t endOfNames; ///< offset of the first byte after the names
};

/// The header of a Unix file.
struct _tagUNIX_FILE_HDR
{
    _tagBASE_HDR base;
    little_uint64_t fileSize;
    little_uint32_t attributes; ///< only the directory bit is read
    little_uint64_t changeTime;
    little_uint64_t accessTime;
    little_uint64_t writeTime;
    little_uint32_t modeFlags;
    little_uint32_t userId;
    little_uint32_t groupId;
    little_uint32_t extendedAttributes; ///< offset of their section, which runs to the end of the buffer
    unsigned char unread[8];
    unsigned char isSymlink; ///< any value but 0: the link's target precedes its path
    char names[1];           ///< NUL-terminated
};

/// Precedes each extended attribute's name and value. The length has the writer's byte order, which is
/// assumed to be that of this host.
struct ExtendedAttributeRecord
{
    unsigned int length; ///< of the whole record in bytes
    little_uint32_t nameLength;
};

/// The header of a Windows file.
struct _tagWINDOWS_FILE_HDR
{
    _tagBASE_HDR base;
    little_uint64_t fileSize;
    little_uint32_t attributes;
    little_uint64_t creationTime;
    little_uint64_t accessTime;
    little_uint64_t writeTime;
    little_uint32_t reparseType;
    little_uint64_t permissionChangeTime; ///< not meaningful for a directory
    unsigned char unread[64];
    little_uint32_t pathCount;
    unsigned char names[sizeof(wchar_t)]; ///< wide units of the host, each a code unit of UTF-16
};

static_assert(sizeof(_tagBASE_HDR) == 20 && alignof(_tagBASE_HDR) == 1);
static_assert(sizeof(_tagUNIX_FILE_HDR) == 82 && offsetof(_tagUNIX_FILE_HDR, names) == 0x51);
static_assert(sizeof(ExtendedAttributeRecord) == 8);
static_assert(sizeof(_tagWINDOWS_FILE_HDR) == 140 && offsetof(_tagWINDOWS_FILE_HDR, names) == 0x88);

/// The differences between the two file headers before their fields are read.
struct Kind
{
    unsigned int type; ///< number in the base header
    /// Smaller headers are reported as too small; YHeap::Cast refuses sizes from here to that of the
    /// structure.
    std::size_t minimum;
    const char* system; ///< word in error texts
    const char* header; ///< name in error texts
};
constexpr Kind UnixFile{0x46554E58, 78, "unix", "UNIX_FILE_HDR"};
constexpr Kind WindowsFile{0x41333333, 136, "windows", "WINDOWS_FILE_HDR"};

/// Returns the header in a record's "legacy_metadata", decoded from Base64, or nothing if the record has no
/// such member. Raises the errors of reading and decoding it.
std::optional<Krt::Memory::YHeap<unsigned char>> Extract(const Krt::JSON::YObject& json);
/// Returns why the bytes are not a header of the kind, or an empty text if they are.
Krt::YString FindDamage(const Krt::Memory::YHeap<unsigned char>& bytes, const Kind& kind);

} // namespace Backup::File::LegacyVamHeader
