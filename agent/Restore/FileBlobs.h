// FileBlobs: the blobs of the files that a restore writes. The blobs of small files are loaded together
// before the files are written. The blobs of a large file are loaded in windows: the next ones are loaded
// while one is written. A blob above LargeBlobSize is loaded when it is needed.
#pragma once

#include "agent/Restore/BlobLoader.h"

#include <deque>

namespace Agent {

class FileBlobs
{
public:
    /// Repository and loader outlive this object. `loaded` are blobs of small files.
    FileBlobs(const Repo::Repository& repository, BlobLoader& loader, LoadedBlobs loaded = {})
        : m_repository(repository), m_loader(loader), m_blobs(std::move(loaded))
    {}

    /// Drops what is loading of a large file.
    ~FileBlobs();
    FileBlobs(const FileBlobs&) = delete;
    FileBlobs& operator=(const FileBlobs&) = delete;

    /// From now on, the blobs of this large file come in windows, without those that are up to date. The
    /// vectors outlive this object. Called once. The loader has no part that was started and not taken, and
    /// no other part is started while this object exists. Nothing is loaded before Get.
    void Begin(const std::vector<Repo::Id>& ids, const std::vector<bool>& isUpToDate);
    /// The content of blob number `i` of the file, valid until the next call. Raises why it can't be loaded.
    Repo::ByteView Get(std::size_t i, const Repo::Id& id);

private:
    void StartWindows();

    const Repo::Repository& m_repository;
    BlobLoader& m_loader;
    LoadedBlobs m_blobs;
    Repo::Bytes m_single;
    const std::vector<Repo::Id>* m_ids = nullptr;
    const std::vector<bool>* m_isUpToDate = nullptr;
    std::size_t m_windowEnd = 0;    // of m_blobs
    std::deque<std::size_t> m_ends; // of the windows that are loading
};

} // namespace Agent
