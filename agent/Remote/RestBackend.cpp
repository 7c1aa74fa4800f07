#include "agent/Remote/RestBackend.h"

#include "agent/Remote/Answer.h"
#include "agent/Repository/Failure.h"
#include "agent/Repository/Json.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

namespace Agent::Remote {

using Http::Method;
using Http::Request;
using Http::Response;
using Krt::YString;
using Repo::Bytes;
using Repo::ByteView;
using Repo::Failure;
using Repo::FileKind;
using Repo::FileName;
using Repo::Id;
using Repo::JsonReader;

namespace {

constexpr std::string_view Version2 = "application/vnd.x.restic.rest.v2";
constexpr std::uint64_t ListLimit = 256 << 20; // bytes
constexpr int Unauthorized = 401;
constexpr int Forbidden = 403;
constexpr int NotFound = 404;
constexpr int MethodNotAllowed = 405;
constexpr int Conflict = 409;
constexpr int RangeNotSatisfiable = 416;

struct ListedFile
{
    Id id;
    std::optional<std::uint64_t> size;
};

// "USER:PASSWORD" in Base64, as the header Authorization has it.
std::string BasicAuthorization(const std::string& user, const Repo::Secret& password)
{
    Repo::Secret plain(user.size() + 1 + password.Size());
    auto at = std::copy(user.begin(), user.end(), plain.Data().begin());
    *at++ = ':';
    std::copy(password.View().begin(), password.View().end(), at);
    Repo::Secret encoded(4 * ((plain.Size() + 2) / 3) + 1); // with the NUL that OpenSSL writes
    const int size =
        EVP_EncodeBlock(encoded.Data().data(), plain.View().data(), static_cast<int>(plain.Size()));
    return "Basic " + std::string(Repo::AsText(encoded.View().first(static_cast<std::size_t>(size))));
}

// The path of a file below that of the repository: that of the layout, without the directories of packs.
std::string PathOf(const FileName& file)
{
    return file.kind == FileKind::Pack ? "data/" + file.id.ToHex() : file.Path();
}

// Names of version 1 are strings, those of version 2 are objects. Other names than ids are ignored.
std::vector<ListedFile> ParseList(std::string_view json, bool isVersion2)
{
    std::vector<ListedFile> files;
    JsonReader reader(json);
    reader.BeginArray();
    while (reader.NextItem()) {
        std::optional<Id> id;
        std::optional<std::uint64_t> size;
        const auto readName = [&] {
            const std::string_view name = reader.String();
            id = Id::FromHex(name);
            if (id && id->ToHex() != name)
                id.reset();
        };
        if (isVersion2) {
            reader.BeginObject();
            for (std::string_view key; reader.NextKey(key);) {
                if (key == "name")
                    readName();
                else if (key == "size")
                    size = reader.Unsigned();
                else
                    reader.Skip();
            }
        } else {
            readName();
        }
        if (id)
            files.push_back({*id, size});
    }
    reader.End();
    return files;
}

YString HexOf(ByteView bytes)
{
    constexpr char Digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += Digits[byte >> 4];
        text += Digits[byte & 0xF];
    }
    return YString(std::string_view(text));
}

Http::Address WithSlash(Http::Address address)
{
    if (!address.path.ends_with('/'))
        address.path += '/';
    return address;
}

// What Named needs.
auto At(const FileName& file)
{
    return [&file] {
        return file.Prefix();
    };
}

} // namespace

RestBackend::RestBackend(Http::Address address, Http::ClientSettings settings)
    : m_address(WithSlash(std::move(address))), m_client(m_address, std::move(settings))
{}

YString RestBackend::Describe() const
{
    return YString(std::string_view("rest:" + m_address.Origin() + m_address.path));
}

Response RestBackend::Send(Request request, const std::string& path, Bytes& body)
{
    request.target = m_address.path + path;
    request.makeHeaders = [this, own = request.makeHeaders] {
        std::vector<Http::Header> headers = own();
        headers.push_back({"Accept", std::string(Version2)});
        if (!m_address.user.empty() || m_address.password.Size() != 0)
            headers.push_back({"Authorization", BasicAuthorization(m_address.user, m_address.password)});
        return headers;
    };
    return m_client.Send(request, body);
}

// The removal of a lock and the replacement of the configuration go on after an interrupt. Repairs give up
// what is missing, so a file is asked for twice before it is.
Response RestBackend::SendFor(const FileName& file, Request request, Bytes& body)
{
    const Method method = request.method;
    request.isCleanUp =
        file.kind == FileKind::Lock || (file.kind == FileKind::Config && method != Method::Get);
    Response response = Send(request, PathOf(file), body);
    if (response.status == NotFound && method == Method::Get)
        response = Send(std::move(request), PathOf(file), body);
    REPOSITORY_RAISE_UNLESS(response.status != NotFound || method == Method::Post || method == Method::Delete,
                            Failure::Missing, "the file does not exist");
    return response;
}

void RestBackend::RaiseRefused(const Response& response, ByteView body, Method method) const
{
    std::string text = "the server answered " + StatusText(response.status);
    if (response.status == Unauthorized)
        text = m_address.user.empty() ? "the server requires a user and a password"
                                      : "the server refuses this user or password";
    else if (response.status == Forbidden && method == Method::Delete)
        text = "the server does not let files be removed, as one that is append-only";
    else if (response.status == Forbidden && method == Method::Post)
        text = "the server does not let this file be stored; one that is append-only does not replace files";
    else if (!body.empty())
        text += ": " + Quoted(Repo::AsText(body));
    const YString message(std::string_view(m_address.HostAndPort() + ": " + text));
    if (response.status == Forbidden) // a repository that can't be written may be read
        KRT_RAISE_OS(EACCES, message);
    REPOSITORY_RAISE(Failure::Backend, message);
}

void RestBackend::Prepare()
{
    const auto where = [this] {
        return Describe() + ": ";
    };
    Repo::Named(where, [this] {
        Request request;
        request.method = Method::Post;
        Bytes body;
        const Response response = Send(std::move(request), "?create=true", body);
        if (!response.IsSuccess())
            RaiseRefused(response, body, Method::Post);
    });
}

void RestBackend::Load(const FileName& file, std::uint64_t offset, std::uint64_t length, Bytes& out)
{
    const std::uint64_t size = length == 0 ? Size(file) : 0;
    Repo::Named(At(file), [&] {
        if (length == 0) {
            out.clear();
            REPOSITORY_RAISE_UNLESS(offset <= size, Failure::Damaged,
                                    "damaged: the file ends before byte " << offset);
            return;
        }
        Request request;
        request.limit = length;
        request.makeHeaders = [&] {
            return std::vector<Http::Header>{{"Range", RangeOf(offset, length)}};
        };
        const Response response = SendFor(file, std::move(request), out);
        if (!response.IsSuccess() && response.status != RangeNotSatisfiable)
            RaiseRefused(response, out, Method::Get);
        RequirePart(response, out, offset, length);
    });
}

void RestBackend::LoadWhole(const FileName& file, std::uint64_t limit, Bytes& out)
{
    Repo::Named(At(file), [&] {
        Request request;
        request.limit = limit;
        const Response response = SendFor(file, std::move(request), out);
        if (!response.IsSuccess())
            RaiseRefused(response, out, Method::Get);
        RequireWhole(response, limit);
    });
}

std::uint64_t RestBackend::Size(const FileName& file)
{
    return Repo::Named(At(file), [&] {
        Request request;
        request.method = Method::Head;
        Bytes body;
        const Response response = SendFor(file, std::move(request), body);
        if (!response.IsSuccess())
            RaiseRefused(response, body, Method::Head);
        return SizeFrom(response);
    });
}

std::optional<std::uint64_t> RestBackend::SizeIfPresent(const FileName& file)
{
    try {
        return Size(file);
    } catch (const Repo::RepositoryError& error) {
        if (error.GetFailure() != Failure::Missing)
            throw;
        return std::nullopt;
    }
}

void RestBackend::List(FileKind kind, const std::function<void(const Id& id, std::uint64_t size)>& visit)
{
    const std::string path = PathOf({kind, {}});
    const std::string folder = path.substr(0, path.size() - Id::Digits);
    const auto where = [&] {
        return Describe() + YString(std::string_view(folder + ": "));
    };
    const std::vector<ListedFile> files = Repo::Named(where, [&] {
        Request request;
        request.limit = ListLimit;
        request.isCleanUp = kind == FileKind::Lock;
        Bytes body;
        Response response = Send(request, folder, body);
        if (response.status == NotFound)
            response = Send(std::move(request), folder, body);
        // If it counted as empty, a prune would remove what the files need.
        REPOSITORY_RAISE_UNLESS(response.status != NotFound, Failure::Missing,
                                "the server does not have this directory");
        if (!response.IsSuccess())
            RaiseRefused(response, body, Method::Get);
        REPOSITORY_RAISE_UNLESS(!response.isTooLong, Failure::Backend,
                                "the server sent a list of more than " << ListLimit << " bytes");
        return ParseList(Repo::AsText(body), response.Find("content-type").starts_with(Version2));
    });
    for (const ListedFile& file : files) {
        const std::optional<std::uint64_t> size = file.size ? file.size : SizeIfPresent({kind, file.id});
        if (size) // otherwise it was removed meanwhile
            visit(file.id, *size);
    }
}

Response RestBackend::Post(const FileName& file, ByteView content, Bytes& body)
{
    Request request;
    request.method = Method::Post;
    request.content = content;
    request.makeHeaders = [] {
        return std::vector<Http::Header>{{"Content-Type", "application/octet-stream"}};
    };
    return SendFor(file, std::move(request), body);
}

// Returns true if the server has the file with this content. The content of a file that is named by an id
// does not change.
bool RestBackend::Has(const FileName& file, ByteView content)
{
    if (SizeIfPresent(file) != content.size())
        return false;
    Bytes stored;
    LoadWhole(file, content.size(), stored);
    return std::equal(stored.begin(), stored.end(), content.begin(), content.end());
}

void RestBackend::Save(const FileName& file, ByteView content)
{
    Bytes body;
    const Response response = Repo::Named(At(file), [&] { return Post(file, content, body); });
    if (response.IsSuccess())
        return;
    const bool mayBeRefused =
        response.status == Forbidden || response.status == Conflict || response.status == MethodNotAllowed;
    if (mayBeRefused && Has(file, content))
        return; // stored by an attempt whose response was lost
    if (mayBeRefused && SizeIfPresent(file))
        return Replace(file, content);
    Repo::Named(At(file), [&] { RaiseRefused(response, body, Method::Post); });
}

void RestBackend::Replace(const FileName& file, ByteView content)
{
    constexpr std::uint64_t ConfigLimit = 64 << 10; // the text of a failure has it
    Bytes old;
    if (file.kind == FileKind::Config)
        LoadWhole(file, ConfigLimit, old);
    try {
        Remove(file);
        Store(file, content);
    } catch (const Krt::Exception::YError& error) {
        KRT_LOG_FREE(Krt::MessageType::General, "Failed to replace a file of the repository: " << error);
        if (old.empty() || !IsConfigReplaced(old, content))
            throw;
    }
}

void RestBackend::Store(const FileName& file, ByteView content)
{
    Bytes body;
    const Response response = Repo::Named(At(file), [&] { return Post(file, content, body); });
    if (!response.IsSuccess() && !Has(file, content))
        Repo::Named(At(file), [&] { RaiseRefused(response, body, Method::Post); });
}

// Called after a failure. A repository without its configuration can't be used, so the old one is stored
// again, and printed if that fails, too. It is encrypted.
bool RestBackend::IsConfigReplaced(ByteView old, ByteView content)
{
    const FileName config;
    try {
        if (Has(config, content))
            return true;
        Store(config, old);
        return false;
    } catch (const Krt::Exception::YError& error) {
        REPOSITORY_RAISE(
            Failure::Backend,
            config.Prefix()
                << "the configuration of the repository could not be replaced, and may be missing "
                   "now: "
                << error.GetMessage()
                << ". If so, store these bytes as the file 'config' of the "
                   "repository (as with xxd -r -p): "
                << HexOf(old));
    }
}

bool RestBackend::SaveNew(const FileName& file, ByteView content)
{
    if (SizeIfPresent(file))
        return false;
    Bytes body;
    const Response response = Repo::Named(At(file), [&] { return Post(file, content, body); });
    if (response.IsSuccess())
        return true;
    if (SizeIfPresent(file)) // an attempt whose response was lost may have stored it
        return Has(file, content);
    Repo::Named(At(file), [&] { RaiseRefused(response, body, Method::Post); });
    return false;
}

void RestBackend::Remove(const FileName& file)
{
    Repo::Named(At(file), [&] {
        Request request;
        request.method = Method::Delete;
        Bytes body;
        const Response response = SendFor(file, std::move(request), body);
        if (!response.IsSuccess() && response.status != NotFound)
            RaiseRefused(response, body, Method::Delete);
    });
}

} // namespace Agent::Remote
