// Archive: writes entries of a snapshot as a tar or zip archive, by libarchive.
#pragma once

#include "agent/Repository/Node.h"

#include <exception>
#include <functional>
#include <memory>
#include <string>

struct archive;
struct archive_entry;

namespace Agent {

enum class ArchiveFormat
{
    Tar, ///< pax, with long names, times in nanoseconds, access lists and extended attributes
    Zip  ///< without owners, access lists, extended attributes, hard links and special files
};

class Archive
{
public:
    /// Receives the bytes of the archive. What it raises passes through the operations.
    using Sink = std::function<void(Repo::ByteView)>;

    Archive(ArchiveFormat format, Sink sink);
    ~Archive();
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    /// Begins an entry. `path` has no leading "/". The content of a file, of `size` bytes, follows by Write.
    /// With a `linkTarget` that is not empty, the entry is a hard link to that path of the archive, and has
    /// no content. Raises NotSupported if the format can't store the entry; the archive is as before then.
    void Begin(const std::string& path, const Repo::Node& node, std::uint64_t size,
               const std::string& linkTarget);
    /// Adds content to the file. Bytes after `size` are dropped.
    void Write(Repo::ByteView content);
    /// Ends the entry. Content that is missing becomes zeros.
    void End();
    /// Ends the archive.
    void Close();

private:
    class Locale;

    static long OnWrite(archive* writer, void* self, const void* bytes, std::size_t size);
    void Require(int result);
    [[noreturn]] void RaiseFailed() const;

    const ArchiveFormat m_format;
    Sink m_sink;
    std::exception_ptr m_failure; // of the sink
    std::unique_ptr<Locale> m_locale;
    std::unique_ptr<archive, int (*)(archive*)> m_writer;
    std::unique_ptr<archive_entry, void (*)(archive_entry*)> m_entry;
};

} // namespace Agent
