// ServerBackend: what backends on HTTP servers have in common: how files are loaded, measured and removed. A
// derived class has the connection, and knows the names of files and what refusals mean.
#pragma once

#include "agent/Http/Message.h"
#include "agent/Repository/Backend.h"
#include "agent/Repository/Failure.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Agent::Remote {

class ServerBackend : public Repo::IBackend
{
public:
    void Load(const Repo::FileName& file, std::uint64_t offset, std::uint64_t length,
              Repo::Bytes& out) override;
    void LoadWhole(const Repo::FileName& file, std::uint64_t limit, Repo::Bytes& out) override;
    std::uint64_t Size(const Repo::FileName& file) override;
    void Remove(const Repo::FileName& file) override;

protected:
    /// A request without what all requests to the server have.
    struct Call
    {
        Http::Method method = Http::Method::Get;
        std::string path = {}; ///< what PathOf returns, or the path of a directory; empty for the root
        std::vector<std::pair<std::string, std::string>> query = {}; ///< names and values, not encoded
        std::vector<Http::Header> headers = {};                      ///< names in lower case
        Repo::ByteView content = {};
        std::uint64_t limit = 64 << 10;        ///< bytes of the body of a response of success, at most
        Http::Grace grace = Http::Grace::None; ///< after an interrupt
    };

    /// The path of the file on the server, not encoded.
    virtual std::string PathOf(const Repo::FileName& file) const = 0;
    /// Sends the request and returns the response to the last attempt, as Client does.
    virtual Http::Response Send(const Call& call, Repo::Bytes& body) = 0;
    /// Returns true if a response to GET, HEAD or DELETE means that what it names does not exist.
    virtual bool IsMissing(const Http::Response& response, Repo::ByteView body) const;
    /// Raises what a response of failure means: an error of the operating system if access is denied, since
    /// what can't be written may be read; otherwise Failure::Backend, or a more specific failure.
    [[noreturn]] virtual void RaiseRefused(const Http::Response& response, Repo::ByteView body,
                                           const Call& call) = 0;

    /// A request of Http with all of the call except its path and headers. `target` is the encoded path.
    static Http::Request RequestOf(const Call& call, std::string target);
    /// How many files of a kind a list may have, since all are kept in memory.
    static std::size_t MostFiles(Repo::FileKind kind);
    /// Sends the request, and a GET, HEAD or DELETE once more if what it names is missing.
    Http::Response SendTwiceIfMissing(const Call& call, Repo::Bytes& body);
    /// Sets the path of the call, and sends it. Raises Missing if it is GET or HEAD, and the file does not
    /// exist.
    Http::Response SendFor(const Repo::FileName& file, Call& call, Repo::Bytes& body);
    /// Calls RaiseRefused unless the response has a status of success.
    void RequireSuccess(const Http::Response& response, Repo::ByteView body, const Call& call);
    /// The size of the file, or nothing if it does not exist.
    std::optional<std::uint64_t> SizeIfPresent(const Repo::FileName& file);
    /// Asks once whether the file exists, for a file that usually does not.
    bool SeemsMissing(const Repo::FileName& file);

    /// Does Repo::Named with the prefix of the file.
    template <class Work>
    static auto NamedFor(const Repo::FileName& file, const Work& work)
    {
        return Repo::Named([&file] { return file.Prefix(); }, work);
    }
};

} // namespace Agent::Remote
