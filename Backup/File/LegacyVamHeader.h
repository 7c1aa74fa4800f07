// The binary metadata headers of older backup sets, as they lie in the buffer: packed, little-endian, without
// alignment. They are only ever read. A header is followed by its list of names, whose end the base header
// tells, and a Unix header by its extended attributes.
#pragma once

#include "Krt/JSON/YObject.h"
#include "Krt/Memory/YHeap.h"

#include <boost/endian/arithmetic.hpp>

#include <cstddef>
#include <optional>

namespace Backup::File::LegacyVamHeader {

using boost::endian::little_uint32_t;
using boost::endian::little_uint64_t;

struct _tagBASE_HDR
{
    little_uint32_t type;
    unsigned char unread[12];
    little_uint32_t endOfNames; ///< offset of the first byte behind the names
};

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
    unsigned char isSymlink; ///< any value but 0: the link's target stands in front of its path
    char names[1];           ///< NUL-terminated
};

/// In front of each extended attribute's name and value; the length is in the writer's byte order, which is
/// taken to be this host's.
struct ExtendedAttributeRecord
{
    unsigned int length; ///< of the whole record
    little_uint32_t nameLength;
};

struct _tagWINDOWS_FILE_HDR
{
    _tagBASE_HDR base;
    little_uint64_t fileSize;
    little_uint32_t attributes;
    little_uint64_t creationTime;
    little_uint64_t accessTime;
    little_uint64_t writeTime;
    little_uint32_t reparseType;
    little_uint64_t permissionChangeTime; ///< of no meaning in a directory's header
    unsigned char unread[64];
    little_uint32_t pathCount;
    unsigned char names[sizeof(wchar_t)]; ///< wide units of the host, each a code unit of UTF-16
};

static_assert(sizeof(_tagBASE_HDR) == 20 && alignof(_tagBASE_HDR) == 1);
static_assert(sizeof(_tagUNIX_FILE_HDR) == 82 && offsetof(_tagUNIX_FILE_HDR, names) == 0x51);
static_assert(sizeof(ExtendedAttributeRecord) == 8);
static_assert(sizeof(_tagWINDOWS_FILE_HDR) == 140 && offsetof(_tagWINDOWS_FILE_HDR, names) == 0x88);

/// What the two file headers differ in before their fields are read.
struct Kind
{
    unsigned int type;   ///< number in the base header
    std::size_t minimum; ///< bytes of the header without the first unit of its names
    const char* system;  ///< word in error texts
    const char* header;  ///< name in error texts
};
constexpr Kind UnixFile{0x46554E58, 78, "unix", "UNIX_FILE_HDR"};
constexpr Kind WindowsFile{0x41333333, 136, "windows", "WINDOWS_FILE_HDR"};

/// Returns the header in a record's "legacy_metadata", decoded from Base64, or nothing if the record has no
/// such member. Raises what reading and decoding it raise.
std::optional<Krt::Memory::YHeap<unsigned char>> Extract(const Krt::JSON::YObject& json);
/// Returns why the bytes can't be a header of the kind, or an empty text if they can.
Krt::YString FindDamage(const Krt::Memory::YHeap<unsigned char>& bytes, const Kind& kind);

} // namespace Backup::File::LegacyVamHeader
