#include "Krt/File/YFile.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/Util/YUnxHandle.h"

namespace Krt::File {

YFile::YFile(const YPath& path, unsigned int flags) : m_path(path)
{
    KRT_RAISE_UNLESS(flags == CreateAndWrite, ErrorCode::InvalidArgument,
                     "Invalid open flags " << flags << " for file: " << path);
    m_handle = Open(path, OpenNewForWriting);
}

void YFile::Write(const YString& text)
{
    KRT_RAISE_UNLESS(!m_handle.IsEmpty(), ErrorCode::InvalidState, "File is not open: " << m_path);
    try {
        m_size += File::Write(m_handle, m_size, text.Bytes().size(), text.Bytes().data());
    } catch (const Exception::YError& error) {
        KRT_RAISE_OS(error.GetOsError(), "Failed to write file: " << m_path);
    }
}

void YFile::Close()
{
    if (m_handle.IsEmpty())
        return;
    if (const int error = Util::TryCloseWritten(m_handle))
        KRT_RAISE_OS(error, "Failed to close file: " << m_path);
}

} // namespace Krt::File
