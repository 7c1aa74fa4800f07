// RestBackend: a repository on a server that has restic's REST API, version 1 or 2: restic's rest-server, or
// `rclone serve restic`. A file is BASE/KIND/ID, without the directories of packs, and BASE/config.
//
// The server stores a file as a whole or not at all. SaveNew asks for the file first, so where the server
// replaces files, the second of two processes at the same time wins.
#pragma once

#include "agent/Http/Client.h"
#include "agent/Repository/Backend.h"

#include <optional>

namespace Agent::Remote {

class RestBackend : public Repo::IBackend
{
public:
    /// The path, user and password of the address are those of the repository. Does not connect yet. Raises
    /// what Client raises.
    RestBackend(Http::Address address, Http::ClientSettings settings);

    Krt::YString Describe() const override;
    void Prepare() override;
    void Load(const Repo::FileName& file, std::uint64_t offset, std::uint64_t length,
              Repo::Bytes& out) override;
    void LoadWhole(const Repo::FileName& file, std::uint64_t limit, Repo::Bytes& out) override;
    std::uint64_t Size(const Repo::FileName& file) override;
    /// A server of version 1 is asked for the size of each file. Raises Missing if the server does not have
    /// the directory, Damaged for a list that is not an array, and Failure::Backend for one of more than
    /// 256 MiB.
    void List(Repo::FileKind kind,
              const std::function<void(const Repo::Id& id, std::uint64_t size)>& visit) override;
    /// A server that does not replace files is asked to remove the file first. The configuration is stored
    /// again if the new one can't be; if that fails, too, the text of the failure has it in hexadecimal.
    void Save(const Repo::FileName& file, Repo::ByteView content) override;
    bool SaveNew(const Repo::FileName& file, Repo::ByteView content) override;
    void Remove(const Repo::FileName& file) override;

private:
    Http::Response Send(Http::Request request, const std::string& path, Repo::Bytes& body);
    Http::Response SendFor(const Repo::FileName& file, Http::Request request, Repo::Bytes& body);
    [[noreturn]] void RaiseRefused(const Http::Response& response, Repo::ByteView body,
                                   Http::Method method) const;
    Http::Response Post(const Repo::FileName& file, Repo::ByteView content, Repo::Bytes& body);
    bool Has(const Repo::FileName& file, Repo::ByteView content);
    void Replace(const Repo::FileName& file, Repo::ByteView content);
    void Store(const Repo::FileName& file, Repo::ByteView content);
    bool IsConfigReplaced(Repo::ByteView old, Repo::ByteView content);
    std::optional<std::uint64_t> SizeIfPresent(const Repo::FileName& file);

    const Http::Address m_address; // its path ends with "/"
    Http::Client m_client;
};

} // namespace Agent::Remote
