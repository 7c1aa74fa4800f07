// The binary metadata headers of older backup sets, as they lie in the buffer: packed, little-endian, without
// alignment. They are only ever read. A header is followed by its list of names, whose end the base header
// tells, and a Unix header by its extended attributes.
#pragma once

#include <boost/endian/arithmetic.hpp>

#include <cstddef>

namespace Backup::File::LegacyVamHeader {

using boost::endian::little_uint32_t;
using boost::endian::little_uint64_t;

constexpr unsigned int UnixFileType = 0x46554E58;
constexpr unsigned int WindowsFileType = 0x41333333;
constexpr unsigned int AttributeDirectory = 0x10;

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

/// Bytes that make up a file header without the first unit of its names.
constexpr std::size_t UnixFileHeaderMinimum = 78;
constexpr std::size_t WindowsFileHeaderMinimum = 136;

} // namespace Backup::File::LegacyVamHeader
