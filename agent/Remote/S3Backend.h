// S3Backend: a repository in a bucket of a server that has the API of S3. The key of a file is the prefix,
// "/" and the file's path in the layout that all backends share.
//
// A file is one object, which one PUT stores as a whole or not at all. The store has to list an object as
// soon as it is stored. SaveNew asks for the object first. It then sends "If-None-Match: *", with which
// servers that know it refuse to replace an object that another process has stored meanwhile. With servers
// that refuse the header or ignore it, the second of two processes at the same time wins.
#pragma once

#include "agent/Http/Client.h"
#include "agent/Remote/ServerBackend.h"
#include "agent/Remote/SignatureV4.h"

#include <ctime>
#include <functional>
#include <string>

namespace Agent::Remote {

/// Where requests name the bucket.
enum class BucketLookup
{
    Auto, ///< Dns for hosts of amazonaws.com if the name of the bucket has no dot, otherwise Path
    Dns,  ///< in the host: https://BUCKET.HOST/KEY
    Path  ///< in the path: https://HOST/BUCKET/KEY
};

struct S3Location
{
    Http::Address server;
    std::string bucket;
    std::string prefix; ///< of keys, without "/" at its ends; may be empty
    BucketLookup lookup = BucketLookup::Auto;
    std::string region; ///< empty for that of the host name, otherwise us-east-1
};

/// The region that the name of a host has, as in s3.REGION.amazonaws.com, s3.dualstack.REGION.amazonaws.com
/// and s3-REGION.amazonaws.com, also with ".cn" at the end; otherwise us-east-1.
std::string RegionOfHost(std::string_view host);

class S3Backend : public ServerBackend
{
public:
    /// Does not connect yet. Raises what Client raises. `clock` is the time of signatures.
    S3Backend(
        S3Location location, S3Credentials credentials, Http::ClientSettings settings,
        std::function<std::time_t()> clock = [] { return std::time(nullptr); });

    Krt::YString Describe() const override;
    /// Creates the bucket. A bucket that this user may not list is taken to exist.
    void Prepare() override;
    /// Raises NoRepository if the bucket does not exist, and Failure::Backend for a list that is not complete
    /// or has more files than MostFiles.
    void List(Repo::FileKind kind,
              const std::function<void(const Repo::Id& id, std::uint64_t size)>& visit) override;
    void Save(const Repo::FileName& file, Repo::ByteView content) override;
    bool SaveNew(const Repo::FileName& file, Repo::ByteView content) override;

private:
    struct Page;

    std::string PathOf(const Repo::FileName& file) const override;
    Http::Response Send(const Call& call, Repo::Bytes& body) override;
    bool IsMissing(const Http::Response& response, Repo::ByteView body) const override;
    [[noreturn]] void RaiseRefused(const Http::Response& response, Repo::ByteView body,
                                   const Call& call) override;
    void CreateBucket();
    bool LoadPage(Repo::FileKind kind, const std::string& token, Page& page);
    bool Has(const Repo::FileName& file, Repo::ByteView content);

    const S3Location m_location;
    const S3Credentials m_credentials;
    const std::string m_region;
    const bool m_isBucketInHost;
    const Http::Address m_server; // that requests are sent to
    const std::function<std::time_t()> m_clock;
    Http::Client m_client;
};

} // namespace Agent::Remote
