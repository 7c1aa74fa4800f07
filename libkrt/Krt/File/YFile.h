#pragma once

#include "Krt/File/YPath.h"
#include "Krt/Util/YUnxHandle.h"

namespace Krt::File {

/// A text file that is written sequentially, such as a temporary file. Operations raise the operating
/// system's error with the path. One thread at a time.
class KRT_API YFile
{
public:
    /// The only flag word: creates the file and opens it for writing.
    static constexpr unsigned int CreateAndWrite = 0x42;

    /// Creates the file exclusively, not through a symlink, with mode 0600. Raises InvalidArgument for
    /// flags other than CreateAndWrite.
    YFile(const YPath& path, unsigned int flags);
    YFile(const YFile&) = delete;
    YFile& operator=(const YFile&) = delete;
    /// Closes an open file and ignores errors. The file is not deleted, not even after a failure.
    ~YFile() = default;

    /// Appends all bytes of the text, or raises; bytes written before a failure stay in the file. Raises
    /// InvalidState after Close.
    void Write(const YString& text);
    /// Closes the file. Raises a loss of data that the file system reports only now; the file is closed
    /// then, too. A second call does nothing.
    void Close();

private:
    YPath m_path;
    Util::YUnxHandle m_handle;
    unsigned long long m_size = 0;
};

} // namespace Krt::File
