#include "agent/Store/ObjectFolder.h"

#include "agent/Store/Directories.h"
#include "agent/Store/Hex.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/Retry.h"

#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

namespace Agent {

using Krt::Util::RetryOnInterrupt;

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

bool Move(const Krt::File::YDirectory& from, const Krt::YString& name, const Krt::File::YDirectory& to,
          const char* newName)
{
    return RetryOnInterrupt([&] {
               return renameat(from.GetHandle().Get(), name.CStr(), to.GetHandle().Get(), newName);
           }) == 0;
}

} // namespace

// Reading costs one call an object. A link for a folder is followed here, and gives whoever made it nothing
// that another object would not: what is found counts by its address alone.
bool ObjectFolder::Has(const Address& address) const
{
    const RelativePath place(address);
    struct stat status;
    if (RetryOnInterrupt([&] {
            return fstatat(m_directory.GetHandle().Get(), place.Text(), &status, AT_SYMLINK_NOFOLLOW);
        }) == 0)
        return S_ISREG(status.st_mode) && status.st_size != 0;
    if (errno != ENOENT)
        KRT_RAISE_OS("Failed to look for object: " << place.Text());
    return false;
}

Krt::Util::YUnxHandle ObjectFolder::Open(const Address& address) const
{
    const RelativePath place(address);
    const int descriptor = Krt::Util::MoveAboveStandardStreams(RetryOnInterrupt([&] {
        return openat(m_directory.GetHandle().Get(), place.Text(),
                      O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }));
    if (descriptor < 0)
        KRT_RAISE_OS("Failed to open object: " << place.Text());
    return Krt::Util::YUnxHandle(descriptor, true);
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
    for (const auto& [address, name] : files) {
        const RelativePath place(address);
        // In the order of addresses each folder is opened once.
        if (!folder || address.bytes[0] != current)
            folder.emplace(OpenFolder(place.Folder()));
        current = address.bytes[0];
        if (!Move(from, name, *folder, place.Name()))
            KRT_RAISE_OS("Failed to place object: " << place.Text());
    }
}

} // namespace Agent
