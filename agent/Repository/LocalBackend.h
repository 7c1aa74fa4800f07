// LocalBackend: a repository in a directory of this machine.
//
// Directories have mode 0700 and files 0400. If `config` can be read by its group, directories that are
// created get 0770 and files 0440. Only Prepare creates the directory of snapshots: a prune of a repository
// that has lost it would remove everything, if a backup had created an empty one. A file is written under the
// temporary name "ID-tmp-DIGITS" in its own directory, then renamed. A reader and a listing follow a symlink
// in place of a directory, as if it was moved to another file system; the content of files is verified. A
// writer does not follow one below the repository's own directory. A symlink in place of a file is refused.
// File systems that refuse to change modes, or to make a directory durable, are used without that.
#pragma once

#include "agent/Repository/Backend.h"

#include "Krt/File/File.h"
#include "Krt/Util/YUnxHandle.h"

namespace Krt::File {
class YDirectory;
}

namespace Agent::Repo {

/// Makes a file or a directory durable, as Krt::File::Sync does. Called by any thread.
using SyncCall = std::function<void(const Krt::Util::YUnxHandle& handle)>;

class LocalBackend : public IBackend
{
public:
    /// The directory may not exist yet: then it has no files, and Prepare creates it with its parents.
    /// Relative paths are those of the working directory now. If `sync` raises, the file is not saved.
    explicit LocalBackend(const Krt::YString& path, SyncCall sync = Krt::File::Sync);

    Krt::YString Describe() const override;
    void Prepare() override;
    void Load(const FileName& file, std::uint64_t offset, std::uint64_t length, Bytes& out) override;
    void LoadWhole(const FileName& file, std::uint64_t limit, Bytes& out) override;
    std::uint64_t Size(const FileName& file) override;
    void List(FileKind kind, const std::function<void(const Id& id, std::uint64_t size)>& visit) override;
    void RequirePlace(FileKind kind) override;
    void RequireComplete(FileKind kind) override;
    void Save(const FileName& file, ByteView content) override;
    bool SaveNew(const FileName& file, ByteView content) override;
    void Remove(const FileName& file) override;

private:
    Krt::YString PathOf(const FileName& file) const;
    Krt::Util::YUnxHandle OpenFile(const FileName& file) const;
    bool Write(const FileName& file, ByteView content, bool replaces);
    void SyncDirectory(const Krt::File::YDirectory& directory) const;

    Krt::YString m_path; // absolute
    SyncCall m_sync;
};

} // namespace Agent::Repo
