// A text file that is written from its beginning to its end, such as a temporary one.
#pragma once

#include "Krt/File/YPath.h"
#include "Krt/Util/YUnxHandle.h"

namespace Krt::File {

class KRT_API YFile
{
public:
    /// The one flag word: makes the file and opens it for writing.
    static constexpr unsigned int CreateAndWrite = 0x42;

    /// The file is made exclusively and not through a link, with mode 0600. Another flag word raises
    /// InvalidArgument. This and the other operations raise the operating system's error with the path.
    YFile(const YPath& path, unsigned int flags);
    YFile(const YFile&) = delete;
    YFile& operator=(const YFile&) = delete;
    /// Closes an open file quietly. The file stays, also after a failure.
    ~YFile() = default;

    /// Adds all of the text's bytes, or raises; what came before a failure stays in the file. A closed file
    /// raises InvalidState.
    void Write(const YString& text);
    /// Tells a loss of data that came to light late, where the file system does. The file is closed then,
    /// too; closing a closed one does nothing.
    void Close();

private:
    YPath m_path;
    Util::YUnxHandle m_handle;
    unsigned long long m_size = 0;
};

} // namespace Krt::File
