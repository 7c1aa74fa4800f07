#include "testing/LegacyHeaderBuilder.h"

#include "Krt/Crypto/Base64.h"

namespace Testing {

namespace {

template <class T>
void Put(std::string& out, T value)
{
    for (std::size_t i = 0; i < sizeof(T); ++i)
        out += static_cast<char>(value >> (8 * i));
}

void PutBase(std::string& out, std::uint32_t type, std::uint32_t endOfNames)
{
    Put(out, type);
    out.append(12, '\x5A');
    Put(out, endOfNames);
}

template <class Header>
void PutCommon(std::string& out, const Header& header, std::uint64_t firstTime)
{
    Put(out, header.fileSize);
    Put(out, header.attributes);
    Put(out, firstTime);
    Put(out, header.accessTime);
    Put(out, header.writeTime);
}

} // namespace

std::string LegacyUnixHeader::Bytes() const
{
    const auto end = static_cast<std::uint32_t>(0x51 + names.size());
    std::string out;
    PutBase(out, type, endOfNames.value_or(end));
    PutCommon(out, *this, changeTime);
    Put(out, modeFlags);
    Put(out, userId);
    Put(out, groupId);
    Put(out, attributesOffset.value_or(end));
    out.append(8, '\x5A');
    Put(out, isSymlink);
    out += names;
    for (const auto& [name, value] : extendedAttributes)
        out += LegacyAttributeRecord(name, value);
    return out + trailing;
}

std::string LegacyWindowsHeader::Bytes() const
{
    const auto end = static_cast<std::uint32_t>(0x88 + names.size() * sizeof(wchar_t));
    std::string out;
    PutBase(out, type, endOfNames.value_or(end));
    PutCommon(out, *this, creationTime);
    Put(out, reparseType);
    Put(out, permissionChangeTime);
    out.append(64, '\x5A');
    Put(out, pathCount);
    for (const wchar_t unit : names)
        Put(out, static_cast<std::uint32_t>(unit));
    return out;
}

LegacyUnixHeader SampleUnixFile()
{
    LegacyUnixHeader header;
    header.names = std::string("/home/a file", 13);
    header.extendedAttributes = {{"user.a", "value"}, {"user.b", ""}, {"user.a", "again"}};
    return header;
}

LegacyUnixHeader SampleUnixLink()
{
    LegacyUnixHeader header;
    header.modeFlags = 0120777;
    header.isSymlink = 1;
    header.names = std::string("abc\0\n/home/link", 16);
    return header;
}

LegacyWindowsHeader SampleWindowsFile(const std::wstring& names, std::uint32_t count)
{
    LegacyWindowsHeader header;
    header.names = names;
    header.pathCount = count;
    return header;
}

std::string LegacyAttributeRecord(const std::string& name, const std::string& value,
                                  std::optional<std::uint32_t> length,
                                  std::optional<std::uint32_t> nameLength)
{
    std::string out;
    Put(out, length.value_or(static_cast<std::uint32_t>(8 + name.size() + value.size())));
    Put(out, nameLength.value_or(static_cast<std::uint32_t>(name.size())));
    return out + name + value;
}

Krt::JSON::YObject LegacyDocument(const std::string& type, const std::string& header)
{
    Krt::JSON::YObject json;
    json.Set<Krt::YString>("metadata_type", type.c_str());
    json.Set<Krt::YString>("legacy_metadata", Krt::Crypto::Base64EncodeData({header.data(), header.size()}));
    return json;
}

} // namespace Testing
