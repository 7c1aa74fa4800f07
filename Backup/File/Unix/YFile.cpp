#include "Backup/File/Unix/YFile.h"

#include "Backup/File/Unix/File.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/YDirectory.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Profile/YProfile.h"

#include <unistd.h>

namespace Backup::File {

using Krt::ErrorCode;
using Krt::Hex;
using Krt::MessageType;
using Krt::Modifiers;
using Krt::YString;
using Krt::Exception::YError;
using Krt::File::ExtendedAttributeMap;
using Krt::File::YDirectory;
using Krt::File::YEntry;

namespace {

constexpr unsigned long DataBufferSize = 0x100000;

// Returns the result of the call, or an empty one if the file system has no attributes.
template <class Call>
auto EmptyIfUnavailable(Call call) -> decltype(call())
{
    try {
        return call();
    } catch (const YError& error) {
        if (error.GetCode() != ErrorCode::AttributesUnavailable)
            throw;
        return {};
    }
}

} // namespace

YFile::YFile()
{
    InitializeMembers();
}

YFile::YFile(OPEN_MODE mode, const YPath& path, OPTIONS options)
{
    InitializeMembers();
    Open(mode, path, options);
}

YFile::~YFile()
{
    try {
        Close();
    } catch (const YError&) {
        // There is no caller to report the error to.
    }
}

void YFile::Initialize(unsigned long long value)
{
    InitializeMembers();
    m_callerValue = value;
}

void YFile::InitializeMembers()
{
    m_size = 0;
    m_inode = 0;
    m_callerValue = 0;
    m_handle = Krt::Util::YUnxHandle();
    m_openMode = OPEN_MODE_NONE;
    m_path = YPath();
    m_options = OPTIONS{};
    m_attributes = 0;
    m_offset = 0;
    m_lastAccessTime = 0;
    m_lastWriteTime = 0;
    m_lastChangedTime = 0;
    m_dataBuffer.Resize(0);
    m_dataSize = 0;
    m_entry = YEntry(m_path);
}

// Closes the previous file, resets all members, and stores the mode and the path.
void YFile::Start(OPEN_MODE mode, const YPath& path, OPTIONS options)
{
    try {
        Close();
    } catch (const YError&) {
        // The failure concerns the previous file only.
    }
    InitializeMembers();
    m_openMode = mode;
    m_options = options;
    m_path = path;
}

void YFile::Open(OPEN_MODE mode, const YPath& path, OPTIONS options)
{
    Start(mode, path, options);
    switch (mode) {
    case OPEN_MODE_READ:
    case OPEN_MODE_READ_ALTERNATE:
        OpenForRead();
        break;
    case OPEN_MODE_WRITE:
        OpenForWrite();
        break;
    default:
        KRT_RAISE(ErrorCode::InvalidState, "Invalid file mode");
    }
    KRT_LOG(MessageType::FileIo, "Successfully opened file " << m_path);
}

void YFile::OpenEntry(const YDirectory& directory, const YString& name, const YPath& path)
{
    Start(OPEN_MODE_READ, path, OPTIONS{});
    m_entry = YEntry(directory, name);
    TakeStatus(directory.Stat(name));
    if (IsRegularFile())
        m_handle = directory.OpenFile(name);
    KRT_LOG(MessageType::FileIo, "Successfully opened file " << m_path);
}

void YFile::OpenForRead()
{
    struct stat status;
    StatFile(m_path, &status);
    m_entry = YEntry(m_path);
    TakeStatus(status);
    if (IsRegularFile())
        m_handle = Krt::File::Open(m_path, Krt::File::OpenForReading);
}

// Of an entry other than a regular file, only the status is used.
void YFile::TakeStatus(const struct stat& status)
{
    m_modeFlags = status.st_mode;
    m_inode = status.st_ino;
    m_lastAccessTime = static_cast<unsigned long long>(status.st_atime);
    m_lastWriteTime = static_cast<unsigned long long>(status.st_mtime);
    m_lastChangedTime = static_cast<unsigned long long>(status.st_ctime);
    m_uid = status.st_uid;
    m_gid = status.st_gid;
    m_size = static_cast<unsigned long long>(status.st_size);
    m_offset = 0;
    if (IsDirectory())
        m_attributes |= Krt::File::AttributeDirectory;
    if (!IsRegularFile())
        m_openMode = OPEN_MODE_NONE;
}

void YFile::OpenForWrite()
{
    if (m_openMode != OPEN_MODE_WRITE)
        return;
    if ((m_options & OPT_DIRECTORY) != 0) {
        KRT_LOG(MessageType::FileIo, "Creating folder " << m_path);
        Krt::File::CreatePath(m_path, true);
        m_openMode = OPEN_MODE_NONE;
    } else {
        KRT_LOG(MessageType::FileIo,
                "Creating file for write " << m_path << " Option " << static_cast<unsigned int>(m_options));
        Krt::File::CreatePath(m_path, false);
        Krt::File::DeleteFile(m_path);
        m_handle = Krt::File::Open(m_path, Krt::File::OpenNewForWriting);
    }
    m_offset = 0;
}

void YFile::Close()
{
    if (!IsOpen())
        return;
    m_handle = Krt::Util::YUnxHandle(0, false);
    if (m_openMode == OPEN_MODE_WRITE)
        SetFileTime(m_path, m_lastAccessTime, m_lastWriteTime);
    m_openMode = OPEN_MODE_NONE;
}

unsigned int YFile::Read(void* buffer, unsigned int count)
{
    const auto size = static_cast<unsigned int>(Krt::File::Read(m_handle, m_offset, count, buffer));
    m_offset += size;
    KRT_LOG(MessageType::FileIo, "Read " << Modifiers::ByteCount << count << " bytes from file " << m_path);
    return size;
}

unsigned int YFile::Write(const void* buffer, unsigned int count)
{
    KRT_LOG(MessageType::FileIo, "Writing " << Modifiers::ByteCount << count << " to file with path="
                                            << m_path << "  isopen = " << (IsOpen() ? 1 : 0));
    if (!IsOpen() || (m_options & OPT_DIRECTORY) != 0)
        return 0;
    const auto size = Krt::NumericCast<unsigned int>(Krt::File::Write(m_handle, m_offset, count, buffer));
    m_offset += size;
    return size;
}

void YFile::Seek(unsigned long long)
{
    KRT_RAISE(ErrorCode::NotImplemented,
              "Seeking within files is currently not implemented in the unix build of the agent");
}

void YFile::SetTime(unsigned long long access, unsigned long long write)
{
    KRT_LOG(MessageType::FileIo, "Setting file times");
    KRT_LOG(MessageType::FileIo, "   Access time: " << Hex::On << access);
    KRT_LOG(MessageType::FileIo, "   Write time: " << Hex::On << write);
    m_lastAccessTime = access;
    m_lastWriteTime = write;
}

unsigned long long YFile::GetInode() const
{
    KRT_RAISE_UNLESS(IsOpen(), ErrorCode::InvalidState, "File class not open");
    return m_inode;
}

unsigned int YFile::LookUpAttributes() const
{
    return m_entry.GetDirectory() != nullptr ? m_attributes : Krt::File::GetAttributes(m_path);
}

unsigned char* YFile::GetDataPtr() const
{
    m_dataBuffer.Resize(DataBufferSize);
    return m_dataBuffer;
}

void YFile::SetUID(unsigned int uid) const
{
    Backup::File::SetUID(m_path, uid);
}

void YFile::SetGID(unsigned int gid) const
{
    Backup::File::SetGID(m_path, gid);
}

void YFile::SetModeFlags(unsigned int flags) const
{
    Backup::File::SetModeFlags(m_path, flags);
}

YPath YFile::GetSymbolicLinkTarget() const
{
    const YDirectory* const directory = m_entry.GetDirectory();
    if (directory == nullptr)
        return Backup::File::GetSymbolicLinkTarget(m_path);
    KRT_RAISE_UNLESS(IsSymbolicLink(), ErrorCode::InvalidState);
    char target[LinkTargetSize + 1];
    const ssize_t length = KRT_SYSCALL(
        readlinkat(directory->GetHandle().Get(), m_entry.GetName()->CStr(), target, LinkTargetSize),
        "Could not read symbolic link");
    target[length] = '\0';
    return YPath(target);
}

bool YFile::IsXattrDisabled() const
{
    return Krt::Profile::OpenSystem()->Get<bool>("configuration", "disableXattr", false);
}

std::list<YString> YFile::ListExtendedAttributes() const
{
    if (IsXattrDisabled())
        return {};
    return EmptyIfUnavailable([&] { return m_entry.ListExtendedAttributes(); });
}

ExtendedAttributeMap YFile::GetExtendedAttributeMap() const
{
    if (IsXattrDisabled())
        return {};
    // An open entry is read through its handle; a path is resolved at each call.
    const bool isByHandle = m_entry.GetDirectory() != nullptr && !m_handle.IsEmpty();
    const YEntry entry = isByHandle ? YEntry(m_handle) : m_entry;
    return EmptyIfUnavailable([&] { return entry.GetExtendedAttributeMap(); });
}

void YFile::AddExtendedAttribute(YString name, unsigned char* data, int size)
{
    Krt::File::AddExtendedAttribute(m_path, name, data, static_cast<unsigned int>(size), 0);
}

Krt::YStream& operator<<(Krt::YStream& stream, YFile::OPTIONS options)
{
    if ((options & YFile::OPT_NONE) != 0)
        stream << "OPT_NONE";
    return stream;
}

} // namespace Backup::File
