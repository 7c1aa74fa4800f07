// CachedBackend: a backend that keeps copies of index files, snapshots and packs of trees in a directory of
// this machine. A pack is loaded as a whole when the first of its trees is. A copy is used only if it has the
// id that is its name, which is checked once for each process; otherwise the file is loaded again. Copies of
// files that the repository no longer lists are removed.
#pragma once

#include "agent/Remote/CacheDirectory.h"

#include "Krt/Thread/ThreadSafety.h"

#include <memory>
#include <optional>
#include <unordered_map>

namespace Agent::Remote {

class CachedBackend : public Repo::IBackend
{
public:
    /// Packs with more bytes than this are not kept. A pack of the largest --pack-size has fewer, unless its
    /// last tree is larger than usual.
    static constexpr std::uint64_t PackLimit = 160 << 20;

    /// Keeps no copies before UseDirectory.
    explicit CachedBackend(std::shared_ptr<Repo::IBackend> backend) : m_backend(std::move(backend)) {}

    /// From now on copies are kept there. No other thread uses the backend meanwhile.
    void UseDirectory(CacheDirectory directory) { m_directory.emplace(std::move(directory)); }

    Krt::YString Describe() const override { return m_backend->Describe(); }
    void Prepare() override { m_backend->Prepare(); }
    void Load(const Repo::FileName& file, std::uint64_t offset, std::uint64_t length,
              Repo::Bytes& out) override;
    void LoadWhole(const Repo::FileName& file, std::uint64_t limit, Repo::Bytes& out) override;
    std::uint64_t Size(const Repo::FileName& file) override { return m_backend->Size(file); }
    void List(Repo::FileKind kind,
              const std::function<void(const Repo::Id& id, std::uint64_t size)>& visit) override;
    void RequireComplete(Repo::FileKind kind) override { m_backend->RequireComplete(kind); }
    void Save(const Repo::FileName& file, Repo::ByteView content) override;
    bool SaveNew(const Repo::FileName& file, Repo::ByteView content) override
    {
        return m_backend->SaveNew(file, content);
    }
    void Remove(const Repo::FileName& file) override;

private:
    // What is known of the copy of a pack. Its mutex is held while the pack is loaded.
    struct Pack
    {
        Krt::Thread::AnnotatedMutex mutex;
        bool isKnown KRT_GUARDED_BY(mutex) = false;
        bool isKept KRT_GUARDED_BY(mutex) = false; // and was verified
    };

    bool KeepPack(const Repo::FileName& file);
    bool FetchPack(const Repo::FileName& file);

    std::shared_ptr<Repo::IBackend> m_backend;
    std::optional<CacheDirectory> m_directory;
    Krt::Thread::AnnotatedMutex m_mutex;
    std::unordered_map<Repo::Id, std::shared_ptr<Pack>, Repo::IdHash> m_packs KRT_GUARDED_BY(m_mutex);
};

} // namespace Agent::Remote
