#include "agent/Dump/Archive.h"

#include "agent/Repository/Utf8.h"

#include "Krt/Exception/Raise.h"

#include <archive.h>
#include <archive_entry.h>

#include <locale.h>
#include <optional>
#include <sys/stat.h>

namespace Agent {

using Repo::Node;
using Repo::NodeType;

// libarchive converts names from the locale of the thread: until this object is destroyed, from this one.
class Archive::Locale
{
public:
    explicit Locale(const char* name) : m_locale(newlocale(LC_CTYPE_MASK, name, nullptr))
    {
        if (m_locale != nullptr)
            m_before = uselocale(m_locale);
    }
    ~Locale()
    {
        if (m_locale == nullptr)
            return;
        uselocale(m_before);
        freelocale(m_locale);
    }
    Locale(const Locale&) = delete;
    Locale& operator=(const Locale&) = delete;

private:
    locale_t m_locale;
    locale_t m_before = nullptr;
};

namespace {

unsigned int FileTypeOf(NodeType type)
{
    switch (type) {
    case NodeType::Directory:
        return AE_IFDIR;
    case NodeType::Symlink:
        return AE_IFLNK;
    case NodeType::BlockDevice:
        return AE_IFBLK;
    case NodeType::CharacterDevice:
        return AE_IFCHR;
    case NodeType::Fifo:
        return AE_IFIFO;
    case NodeType::Socket:
        return AE_IFSOCK;
    default:
        return AE_IFREG;
    }
}

// A number of an access list, little endian.
std::uint32_t NumberAt(Repo::ByteView bytes, std::size_t at, std::size_t size)
{
    std::uint32_t number = 0;
    for (std::size_t i = size; i-- != 0;)
        number = number << 8 | bytes[at + i];
    return number;
}

// The tag of libarchive for that of an access list; 0 if it is not known.
int TagOf(std::uint32_t tag)
{
    switch (tag) {
    case 0x01:
        return ARCHIVE_ENTRY_ACL_USER_OBJ;
    case 0x02:
        return ARCHIVE_ENTRY_ACL_USER;
    case 0x04:
        return ARCHIVE_ENTRY_ACL_GROUP_OBJ;
    case 0x08:
        return ARCHIVE_ENTRY_ACL_GROUP;
    case 0x10:
        return ARCHIVE_ENTRY_ACL_MASK;
    case 0x20:
        return ARCHIVE_ENTRY_ACL_OTHER;
    default:
        return 0;
    }
}

// Adds the access list of an attribute: a version, then a tag, permissions and an id for each row. Returns
// false, with the entry unchanged, if the attribute is not one. An access list of a file sets its mode, too,
// so that its group's bits are those of the group and not of the mask.
bool AddAccessList(archive_entry* entry, const Repo::NodeAttribute& attribute)
{
    constexpr std::size_t HeaderSize = 4, RowSize = 8;
    constexpr std::uint32_t Version = 2;
    const bool isDefault = attribute.name == "system.posix_acl_default";
    const Repo::ByteView list(attribute.value);
    if (!isDefault && attribute.name != "system.posix_acl_access")
        return false;
    if (list.size() < HeaderSize || list.size() % RowSize != HeaderSize || NumberAt(list, 0, 4) != Version)
        return false;
    for (std::size_t at = HeaderSize; at < list.size(); at += RowSize) {
        if (TagOf(NumberAt(list, at, 2)) == 0 || NumberAt(list, at + 2, 2) > 7)
            return false;
    }
    for (std::size_t at = HeaderSize; at < list.size(); at += RowSize) {
        const int tag = TagOf(NumberAt(list, at, 2));
        const bool isNamed = tag == ARCHIVE_ENTRY_ACL_USER || tag == ARCHIVE_ENTRY_ACL_GROUP;
        archive_entry_acl_add_entry(
            entry, isDefault ? ARCHIVE_ENTRY_ACL_TYPE_DEFAULT : ARCHIVE_ENTRY_ACL_TYPE_ACCESS,
            static_cast<int>(NumberAt(list, at + 2, 2)), tag,
            isNamed ? static_cast<int>(NumberAt(list, at + 4, 4)) : -1, nullptr);
    }
    return true;
}

} // namespace

Archive::Archive(ArchiveFormat format, Sink sink)
    : m_format(format), m_sink(std::move(sink)),
      m_locale(std::make_unique<Locale>("C.UTF-8")), // names are UTF-8 in it, and other bytes stay
      m_writer(archive_write_new(), &archive_write_free), m_entry(archive_entry_new(), &archive_entry_free)
{
    KRT_RAISE_UNLESS(m_writer && m_entry, Krt::ErrorCode::OutOfMemory, "There is no memory for an archive");
    if (format == ArchiveFormat::Zip) {
        Require(archive_write_set_format_zip(m_writer.get()));
    } else {
        Require(archive_write_set_format_pax_restricted(m_writer.get()));
        Require(archive_write_set_options(m_writer.get(), "pax:xattrheader=SCHILY"));
    }
    Require(archive_write_open2(m_writer.get(), this, nullptr, &OnWrite, nullptr, nullptr));
}

Archive::~Archive()
{
    // Freeing writes the end of the archive, which is wrong after a failure. archive_write_fail would prevent
    // that, but then the buffer is not freed (libarchive 3.6).
    m_sink = nullptr;
}

void Archive::Begin(const std::string& path, const Node& node, std::uint64_t size,
                    const std::string& linkTarget)
{
    archive_entry* const entry = archive_entry_clear(m_entry.get());
    archive_entry_set_pathname(entry, path.c_str());
    archive_entry_set_filetype(entry, FileTypeOf(node.type));
    archive_entry_set_perm(entry, Repo::MakeStatMode(node.mode) & 07777);
    archive_entry_set_uid(entry, node.uid);
    archive_entry_set_gid(entry, node.gid);
    if (!node.user.empty())
        archive_entry_set_uname(entry, node.user.c_str());
    if (!node.group.empty())
        archive_entry_set_gname(entry, node.group.c_str());
    const auto nanoseconds = [](const Repo::Timestamp& time) {
        return static_cast<long>(time.nanoseconds);
    };
    archive_entry_set_mtime(entry, node.mtime.seconds, nanoseconds(node.mtime));
    archive_entry_set_atime(entry, node.atime.seconds, nanoseconds(node.atime));
    archive_entry_set_ctime(entry, node.ctime.seconds, nanoseconds(node.ctime));
    if (node.type == NodeType::Symlink)
        archive_entry_set_symlink(entry, node.linkTarget.c_str());
    if (node.type == NodeType::BlockDevice || node.type == NodeType::CharacterDevice)
        archive_entry_set_rdev(entry, static_cast<dev_t>(node.device));
    for (const Repo::NodeAttribute& attribute : node.attributes) {
        if (!AddAccessList(entry, attribute))
            archive_entry_xattr_add_entry(entry, attribute.name.c_str(), attribute.value.data(),
                                          attribute.value.size());
    }
    archive_entry_set_size(entry, 0);
    if (!linkTarget.empty())
        archive_entry_set_hardlink(entry, linkTarget.c_str());
    else if (node.type == NodeType::File)
        archive_entry_set_size(entry, static_cast<la_int64_t>(size));
    // With the locale above, the name of an entry of a zip archive is marked as UTF-8, whether it is or not.
    std::optional<Locale> plain;
    if (m_format == ArchiveFormat::Zip && !Repo::IsUtf8(path))
        plain.emplace("C");
    Require(archive_write_header(m_writer.get(), entry));
}

void Archive::Write(Repo::ByteView content)
{
    while (!content.empty()) {
        const la_ssize_t count = archive_write_data(m_writer.get(), content.data(), content.size());
        if (count < 0)
            Require(static_cast<int>(count));
        if (count <= 0)
            return; // after the end of the file
        content = content.subspan(static_cast<std::size_t>(count));
    }
}

void Archive::End()
{
    Require(archive_write_finish_entry(m_writer.get()));
}

void Archive::Close()
{
    Require(archive_write_close(m_writer.get()));
}

long Archive::OnWrite(archive* writer, void* self, const void* bytes, std::size_t size)
{
    auto& sink = *static_cast<Archive*>(self);
    if (!sink.m_sink)
        return -1;
    try {
        sink.m_sink({static_cast<const unsigned char*>(bytes), size});
        return static_cast<long>(size);
    } catch (...) {
        sink.m_failure = std::current_exception();
        archive_set_error(writer, EIO, "The archive can't be written");
        return -1;
    }
}

void Archive::Require(int result)
{
    if (m_failure)
        std::rethrow_exception(m_failure);
    // A warning is that a name is not valid UTF-8, or that a pax header was needed.
    if (result != ARCHIVE_OK && result != ARCHIVE_WARN)
        RaiseFailed();
}

void Archive::RaiseFailed() const
{
    const char* const reason = archive_error_string(m_writer.get());
    KRT_RAISE(Krt::ErrorCode::NotSupported, (reason != nullptr ? reason : "The archive can't be written"));
}

} // namespace Agent
