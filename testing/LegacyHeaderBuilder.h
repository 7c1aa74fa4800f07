// Writes the legacy metadata headers, which the library only reads: fields with their usual values, any of
// which a test may damage.
#pragma once

#include "Krt/JSON/YObject.h"
#include "Krt/Memory/YHeap.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Testing {

struct LegacyUnixHeader
{
    std::uint32_t type = 0x46554E58;
    std::uint64_t fileSize = 0;
    std::uint32_t attributes = 0;
    std::uint64_t changeTime = 0;
    std::uint64_t accessTime = 0;
    std::uint64_t writeTime = 0;
    std::uint32_t modeFlags = 0100644;
    std::uint32_t userId = 0;
    std::uint32_t groupId = 0;
    std::uint8_t isSymlink = 0;
    std::string names; ///< the bytes of the name list, NUL bytes included
    std::vector<std::pair<std::string, std::string>> extendedAttributes;
    std::string trailing;                          ///< bytes that follow the attributes
    std::optional<std::uint32_t> endOfNames;       ///< where the names end, if wrong
    std::optional<std::uint32_t> attributesOffset; ///< where they begin, if wrong

    std::string Bytes() const;
};

struct LegacyWindowsHeader
{
    std::uint32_t type = 0x41333333;
    std::uint64_t fileSize = 0;
    std::uint32_t attributes = 0x20;
    std::uint64_t creationTime = 0;
    std::uint64_t accessTime = 0;
    std::uint64_t writeTime = 0;
    std::uint32_t reparseType = 0;
    std::uint64_t permissionChangeTime = 0;
    std::uint32_t pathCount = 1;
    std::wstring names;                      ///< the name list, one UTF-16 code unit in each wchar_t
    std::optional<std::uint32_t> endOfNames; ///< where the names end, if wrong

    std::string Bytes() const;
};

/// A file with three extended attributes, two of which have the same name, and a symlink to "abc".
LegacyUnixHeader SampleUnixFile();
LegacyUnixHeader SampleUnixLink();
/// A file with these names, `count` of them.
LegacyWindowsHeader SampleWindowsFile(const std::wstring& names, std::uint32_t count);

/// Returns the record of one extended attribute, with lengths that may be wrong.
std::string LegacyAttributeRecord(const std::string& name, const std::string& value,
                                  std::optional<std::uint32_t> length = std::nullopt,
                                  std::optional<std::uint32_t> nameLength = std::nullopt);

/// Returns the document that contains a header: "metadata_type" and "legacy_metadata".
Krt::JSON::YObject LegacyDocument(const std::string& type, const std::string& header);

} // namespace Testing
