// RestBackend: a repository on a server that has restic's REST API, version 1 or 2: restic's rest-server, or
// `rclone serve restic`. A file is BASE/KIND/ID, without the directories of packs, and BASE/config.
//
// The server stores a file as a whole or not at all. SaveNew asks for the file first, so where the server
// replaces files, the second of two processes at the same time wins.
#pragma once

#include "agent/Http/Client.h"
#include "agent/Remote/ServerBackend.h"

namespace Agent::Remote {

class RestBackend : public ServerBackend
{
public:
    /// The path, user and password of the address are those of the repository. Does not connect yet. Raises
    /// what Client raises.
    RestBackend(Http::Address address, Http::ClientSettings settings);

    Krt::YString Describe() const override;
    void Prepare() override;
    /// A server of version 1 is asked for the size of each file. Raises Missing if the server does not have
    /// the directory, Damaged for a list that is not an array, and Failure::Backend for one of more than
    /// 256 MiB or MostFiles.
    void List(Repo::FileKind kind,
              const std::function<void(const Repo::Id& id, std::uint64_t size)>& visit) override;
    /// A server that does not replace files is asked to remove the file first. The configuration is stored
    /// again if the new one can't be; if that fails, too, the text of the failure has it in hexadecimal.
    void Save(const Repo::FileName& file, Repo::ByteView content) override;
    bool SaveNew(const Repo::FileName& file, Repo::ByteView content) override;

private:
    std::string PathOf(const Repo::FileName& file) const override;
    Http::Response Send(const Call& call, Repo::Bytes& body) override;
    [[noreturn]] void RaiseRefused(const Http::Response& response, Repo::ByteView body,
                                   const Call& call) override;
    Http::Response Post(const Repo::FileName& file, Repo::ByteView content, Repo::Bytes& body);
    void RaiseNotStored(const Repo::FileName& file, const Http::Response& response, Repo::ByteView body);
    bool Has(const Repo::FileName& file, Repo::ByteView content);
    void Replace(const Repo::FileName& file, Repo::ByteView content);
    void Store(const Repo::FileName& file, Repo::ByteView content);
    bool IsConfigReplaced(Repo::ByteView old, Repo::ByteView content);

    const Http::Address m_address; // its path ends with "/"
    Http::Client m_client;
};

} // namespace Agent::Remote
