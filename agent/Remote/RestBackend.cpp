#include "agent/Remote/RestBackend.h"

#include "agent/Remote/Answer.h"
#include "agent/Repository/Failure.h"
#include "agent/Repository/Json.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Util/YScope.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

namespace Agent::Remote {

using Http::Method;
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
constexpr std::uint64_t EntryLimit = 256;      // bytes of one file in a list
constexpr int Unauthorized = 401;
constexpr int Forbidden = 403;
constexpr int MethodNotAllowed = 405;
constexpr int Conflict = 409;

struct ListedFile
{
    Id id;
    std::optional<std::uint64_t> size;
};

// "USER:PASSWORD" in Base64, as the header Authorization has it. The caller overwrites it.
std::string BasicAuthorization(const std::string& user, const Repo::Secret& password)
{
    Repo::Secret plain(user.size() + 1 + password.Size());
    auto at = std::copy(user.begin(), user.end(), plain.Data().begin());
    *at++ = ':';
    std::copy(password.View().begin(), password.View().end(), at);
    Repo::Secret encoded(4 * ((plain.Size() + 2) / 3) + 1); // with the NUL that OpenSSL writes
    const int size =
        EVP_EncodeBlock(encoded.Data().data(), plain.View().data(), static_cast<int>(plain.Size()));
    const std::string_view text = Repo::AsText(encoded.View().first(static_cast<std::size_t>(size)));
    constexpr std::string_view Scheme = "Basic ";
    std::string value; // no copy remains elsewhere
    value.reserve(Scheme.size() + text.size());
    value.append(Scheme).append(text);
    return value;
}

// Names of version 1 are strings, those of version 2 are objects. Other names than ids are ignored.
std::vector<ListedFile> ParseList(std::string_view json, bool isVersion2, std::size_t most)
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
        if (!id)
            continue;
        REPOSITORY_RAISE_UNLESS(files.size() < most, Failure::Backend,
                                "the server sent a list of more than " << most << " files");
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

// Replaces the password in a text of the server, as it is and percent-encoded, by "***".
std::string WithoutPassword(std::string text, const Repo::Secret& password)
{
    constexpr std::string_view Hidden = "***";
    const std::string_view plain = Repo::AsText(password.View());
    std::string encoded = Http::PercentEncode(plain);
    const Krt::Util::YScope atEnd([&encoded] {
        Repo::Wipe({reinterpret_cast<unsigned char*>(encoded.data()), encoded.size()});
    });
    for (const std::string_view form : {plain, std::string_view(encoded)}) {
        for (std::size_t at = 0; !form.empty() && (at = text.find(form, at)) != text.npos;
             at += Hidden.size())
            text.replace(at, form.size(), Hidden);
    }
    return text;
}

Http::Address WithSlash(Http::Address address)
{
    if (!address.path.ends_with('/'))
        address.path += '/';
    return address;
}

} // namespace

RestBackend::RestBackend(Http::Address address, Http::ClientSettings settings)
    : m_address(WithSlash(std::move(address))), m_client(m_address, std::move(settings))
{}

YString RestBackend::Describe() const
{
    return YString(std::string_view("rest:" + m_address.Origin() + m_address.path));
}

// The path in the layout, without the directories of packs.
std::string RestBackend::PathOf(const FileName& file) const
{
    return file.kind == FileKind::Pack ? "data/" + file.id.ToHex() : file.Path();
}

// The replacement of the configuration goes on after an interrupt.
Response RestBackend::Send(const Call& call, Bytes& body)
{
    Http::Request request = RequestOf(call, m_address.path + call.path);
    if (call.path == PathOf({}) && call.method != Method::Get)
        request.grace = Http::Grace::Whole;
    request.makeHeaders = [&] {
        std::vector<Http::Header> headers = call.headers;
        headers.push_back({"accept", std::string(Version2)});
        if (!m_address.user.empty() || m_address.password.Size() != 0)
            headers.push_back({"authorization", BasicAuthorization(m_address.user, m_address.password)});
        return headers;
    };
    return m_client.Send(request, body);
}

void RestBackend::RaiseRefused(const Response& response, ByteView body, const Call& call)
{
    std::string text = "the server answered " + StatusText(response.status);
    if (response.status == Unauthorized)
        text = m_address.user.empty() ? "the server requires a user and a password"
                                      : "the server refuses this user or password";
    else if (response.status == Forbidden && call.method == Method::Delete)
        text = "the server does not let files be removed, as one that is append-only";
    else if (response.status == Forbidden && call.method == Method::Post)
        text = "the server does not let this file be stored; one that is append-only does not replace files";
    else if (!body.empty())
        text += ": " + Quoted(WithoutPassword(std::string(Repo::AsText(body)), m_address.password));
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
        const Call call{.method = Method::Post, .query = {{"create", "true"}}};
        Bytes body;
        const Response response = Send(call, body);
        RequireSuccess(response, body, call);
    });
}

void RestBackend::List(FileKind kind, const std::function<void(const Id& id, std::uint64_t size)>& visit)
{
    const std::string path = PathOf({kind, {}});
    const std::string folder = path.substr(0, path.size() - Id::Digits);
    const auto where = [&] {
        return Describe() + YString(std::string_view(folder + ": "));
    };
    const std::vector<ListedFile> files = Repo::Named(where, [&] {
        const std::size_t most = MostFiles(kind);
        const Call call{.path = folder, .limit = std::min<std::uint64_t>(ListLimit, most * EntryLimit)};
        Bytes body;
        const Response response = SendTwiceIfMissing(call, body);
        // A copy of a repository may lack the directory of locks. A process that locks then looks for its
        // own.
        if (kind == FileKind::Lock && IsMissing(response, body))
            return std::vector<ListedFile>();
        // If another one counted as empty, a prune would remove what the files need.
        REPOSITORY_RAISE_UNLESS(!IsMissing(response, body), Failure::Missing,
                                "the server does not have this directory");
        RequireSuccess(response, body, call);
        REPOSITORY_RAISE_UNLESS(!response.isTooLong, Failure::Backend,
                                "the server sent a list of more than " << call.limit << " bytes");
        return ParseList(Repo::AsText(body), response.Find("content-type").starts_with(Version2), most);
    });
    for (const ListedFile& file : files) {
        const std::optional<std::uint64_t> size = file.size ? file.size : SizeIfPresent({kind, file.id});
        if (size) // otherwise it was removed meanwhile
            visit(file.id, *size);
    }
}

Response RestBackend::Post(const FileName& file, ByteView content, Bytes& body)
{
    Call call{.method = Method::Post,
              .headers = {{"content-type", "application/octet-stream"}},
              .content = content};
    return NamedFor(file, [&] { return SendFor(file, call, body); });
}

void RestBackend::RaiseNotStored(const FileName& file, const Response& response, ByteView body)
{
    NamedFor(file, [&] { RaiseRefused(response, body, {.method = Method::Post}); });
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
    const Response response = Post(file, content, body);
    if (response.IsSuccess())
        return;
    const bool mayBeRefused =
        response.status == Forbidden || response.status == Conflict || response.status == MethodNotAllowed;
    if (mayBeRefused && Has(file, content))
        return; // stored by an attempt whose response was lost
    if (mayBeRefused && SizeIfPresent(file))
        return Replace(file, content);
    RaiseNotStored(file, response, body);
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
    const Response response = Post(file, content, body);
    if (!response.IsSuccess() && !Has(file, content))
        RaiseNotStored(file, response, body);
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
    if (!SeemsMissing(file))
        return false;
    Bytes body;
    const Response response = Post(file, content, body);
    if (response.IsSuccess())
        return true;
    if (SizeIfPresent(file)) // an attempt whose response was lost may have stored it
        return Has(file, content);
    RaiseNotStored(file, response, body);
    return false;
}

} // namespace Agent::Remote
