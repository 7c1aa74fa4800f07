#include "agent/Store/ObjectFolder.h"

#include "agent/Store/Directories.h"
#include "agent/Store/Hex.h"

#include "Krt/Exception/Raise.h"

#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

namespace Agent {

namespace {

// "ab/cdef...", made without touching the heap: each content of a backup asks for one.
class RelativePath
{
public:
    explicit RelativePath(const Address& address)
    {
        char* out = WriteHex(address.bytes.data(), FolderBytes, m_text);
        *out++ = '/';
        out = WriteHex(address.bytes.data() + FolderBytes, Address::Size - FolderBytes, out);
        *out = '\0';
    }
    const char* Text() const { return m_text; }
    const char* Name() const { return m_text + 2 * FolderBytes + 1; }
    Krt::YString Folder() const { return Krt::YString(std::string_view(m_text, 2 * FolderBytes)); }

private:
    static constexpr std::size_t FolderBytes = 1;
    char m_text[2 * Address::Size + 2];
};

} // namespace

// Reading costs one call an object. A link for a folder is followed here, and gives whoever made it nothing
// that another object would not: what is found counts by its address alone.
bool ObjectFolder::Has(const Address& address) const
{
    const RelativePath place(address);
    struct stat status;
    const auto looked = Krt::Util::CallSystem(
        [&] { return fstatat(m_directory.GetHandle().Get(), place.Text(), &status, AT_SYMLINK_NOFOLLOW); });
    if (looked.error == ENOENT)
        return false;
    KRT_OS_VALUE(looked, "Failed to look for object: " << place.Text());
    return S_ISREG(status.st_mode) && status.st_size != 0;
}

Krt::Util::YUnxHandle ObjectFolder::Open(const Address& address) const
{
    const RelativePath place(address);
    return KRT_OS_VALUE(Krt::Util::OwnAboveStandardStreams(Krt::Util::CallSystem([&] {
                            return openat(m_directory.GetHandle().Get(), place.Text(),
                                          O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
                        })),
                        "Failed to open object: " << place.Text());
}

Krt::File::YDirectory ObjectFolder::OpenFolder(const Krt::YString& name) const
{
    struct stat status;
    if (!m_directory.StatIfPresent(name, status))
        MakeDirectoryUnlessThere(m_directory, name);
    return m_directory.OpenDirectoryToSearch(name);
}

void ObjectFolder::Place(const Krt::File::YDirectory& from,
                         const std::map<Address, Krt::YString>& files) const
{
    std::optional<Krt::File::YDirectory> folder;
    unsigned char current = 0;
    for (const auto& [address, file] : files) {
        const RelativePath place(address);
        const char* const name = file.CStr(); // a lambda can't capture a structured binding in clang 14
        // In the order of addresses each folder is opened once.
        if (!folder || address.bytes[0] != current)
            folder.emplace(OpenFolder(place.Folder()));
        current = address.bytes[0];
        KRT_SYSCALL(renameat(from.GetHandle().Get(), name, folder->GetHandle().Get(), place.Name()),
                    "Failed to place object: " << place.Text());
    }
}

} // namespace Agent
