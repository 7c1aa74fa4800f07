// DumpTarget: the output of a dump.
#pragma once

#include "agent/Repository/Bytes.h"
#include "agent/Run/Report.h"

#include "Krt/File/Unix/Status.h"
#include "Krt/File/YDirectory.h"
#include "Krt/Util/YUnxHandle.h"

#include <optional>
#include <string>

namespace Agent {

class DumpTarget
{
public:
    /// Standard output if `path` is empty; otherwise the file, which gets its name when the target is closed.
    /// It replaces a file that exists, whose owner and mode it gets. A symlink stays. The missing file that a
    /// symlink names is empty until then. Written to are what exists and is not a regular file, such as a
    /// FIFO, the file of standard output, and a file in a directory in which the user can't create one.
    /// Raises the operating system's error.
    DumpTarget(const std::string& path, Report& report);
    /// Removes the file unless the target was closed.
    ~DumpTarget();
    DumpTarget(const DumpTarget&) = delete;
    DumpTarget& operator=(const DumpTarget&) = delete;

    /// Raises the operating system's error, or OutputError for standard output.
    void Write(Repo::ByteView bytes);
    /// Completes the output. Raises what Write raises.
    void Close();

private:
    struct stat CreateLinked();
    void CreateIn(const std::string& directory, const struct stat* existing);
    void Discard();

    Report& m_report;
    std::string m_path;
    Krt::Util::YUnxHandle m_file;
    std::optional<Krt::File::YDirectory> m_directory; // of a file that has not got its name yet
    Krt::YString m_temporary;
    Krt::YString m_name;
    std::optional<Krt::File::FileId> m_created; // the empty file that a symlink names
};

} // namespace Agent
