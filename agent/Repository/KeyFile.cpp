#include "agent/Repository/KeyFile.h"

#include "agent/Repository/Failure.h"
#include "agent/Repository/Json.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <algorithm>
#include <bit>

namespace Agent::Repo {

namespace {

constexpr std::uint64_t MemoryLimit = 1 << 30;              // bytes
constexpr std::uint64_t BlockSize = 128;                    // bytes, for each of r
constexpr std::uint64_t WorkLimit = std::uint64_t(1) << 28; // N * r * p
constexpr std::uint64_t Extra = 1 << 20;                    // bytes that OpenSSL counts in addition

// The text of a master key is wiped, so its string is never moved.
constexpr std::size_t MasterTextSize = 256;

std::span<unsigned char> MemoryOf(std::string& text)
{
    return {reinterpret_cast<unsigned char*>(text.data()), text.size()};
}

void AppendMaster(const Key& master, std::string& text)
{
    JsonWriter writer(text);
    writer.BeginObject();
    writer.Key("mac");
    writer.BeginObject();
    writer.Key("k");
    writer.Binary(master.MacK());
    writer.Key("r");
    writer.Binary(master.MacR());
    writer.EndObject();
    writer.Key("encrypt");
    writer.Binary(master.Encryption());
    writer.EndObject();
}

Key ParseMaster(std::string_view json)
{
    Secret bytes(Key::Size);
    const std::span<unsigned char> all = bytes.Data();
    JsonReader reader(json);
    std::string_view key;
    reader.BeginObject();
    while (reader.NextKey(key)) {
        if (IsKey(key, "mac")) {
            reader.BeginObject();
            while (reader.NextKey(key)) {
                if (IsKey(key, "k"))
                    reader.BinarySecret(all.subspan(Key::EncryptionSize, Key::MacPartSize));
                else if (IsKey(key, "r"))
                    reader.BinarySecret(all.last(Key::MacPartSize));
                else
                    reader.Skip();
            }
        } else if (IsKey(key, "encrypt")) {
            reader.BinarySecret(all.first(Key::EncryptionSize));
        } else {
            reader.Skip();
        }
    }
    reader.End();
    return Key(std::move(bytes));
}

} // namespace

bool ScryptCost::IsAcceptable() const
{
    constexpr std::uint64_t Units = MemoryLimit / BlockSize;
    if (n < 2 || !std::has_single_bit(n) || r == 0 || p == 0 || n > Units || r > Units || p > Units)
        return false;
    const bool isDefined = r >= 4 || n < std::uint64_t(1) << (16 * r);
    return isDefined && r * (n + p) <= Units && n * r <= WorkLimit / p;
}

Key DeriveKey(const Secret& password, ByteView salt, const ScryptCost& cost)
{
    KRT_RAISE_UNLESS(cost.IsAcceptable(), Krt::ErrorCode::InvalidArgument,
                     "The cost of a password is out of bounds");
    Secret bytes(Key::Size);
    const int isDone =
        EVP_PBE_scrypt(reinterpret_cast<const char*>(password.View().data()), password.Size(), salt.data(),
                       salt.size(), cost.n, cost.r, cost.p,
                       BlockSize * cost.r * (cost.n + cost.p + 2) + Extra, bytes.Data().data(), bytes.Size());
    if (isDone != 1) {
        ERR_clear_error();
        KRT_RAISE(Krt::ErrorCode::CryptoFailure, "OpenSSL failed to derive a key");
    }
    return Key(std::move(bytes));
}

Secret MasterKeyText(const Key& master)
{
    std::string text;
    text.reserve(MasterTextSize);
    AppendMaster(master, text);
    Secret secret(AsBytes(text));
    Wipe(MemoryOf(text));
    return secret;
}

KeyFile KeyFile::Parse(std::string_view json)
{
    constexpr std::uint64_t Largest = UINT32_MAX;
    KeyFile file;
    file.cost = {0, 0, 0};
    bool isScrypt = false;
    JsonReader reader(json);
    std::string_view key;
    reader.BeginObject();
    while (reader.NextKey(key)) {
        if (reader.IsNull())
            continue;
        if (IsKey(key, "created"))
            file.created = reader.Time();
        else if (IsKey(key, "username"))
            file.username = reader.String();
        else if (IsKey(key, "hostname"))
            file.hostname = reader.String();
        else if (IsKey(key, "kdf"))
            isScrypt = reader.String() == "scrypt";
        else if (IsKey(key, "N"))
            file.cost.n = reader.Unsigned();
        else if (IsKey(key, "r"))
            file.cost.r = static_cast<std::uint32_t>(reader.Unsigned(Largest));
        else if (IsKey(key, "p"))
            file.cost.p = static_cast<std::uint32_t>(reader.Unsigned(Largest));
        else if (IsKey(key, "salt"))
            reader.Binary(file.salt);
        else if (IsKey(key, "data"))
            reader.Binary(file.data);
        else
            reader.Skip();
    }
    reader.End();
    if (!isScrypt)
        reader.RaiseDamaged("the key is not derived by scrypt");
    if (!file.cost.IsAcceptable())
        reader.RaiseDamaged("the cost of scrypt is out of bounds");
    if (file.salt.size() != SaltSize)
        reader.RaiseDamaged("the salt does not have 64 bytes");
    if (file.data.size() < SealOverhead)
        reader.RaiseDamaged("the sealed key is missing");
    return file;
}

std::string KeyFile::ToJson() const
{
    std::string text;
    JsonWriter writer(text);
    writer.BeginObject();
    writer.Key("created");
    writer.Time(created);
    writer.Key("username");
    writer.String(username);
    writer.Key("hostname");
    writer.String(hostname);
    writer.Key("kdf");
    writer.String("scrypt");
    writer.Key("N");
    writer.Number(cost.n);
    writer.Key("r");
    writer.Number(cost.r);
    writer.Key("p");
    writer.Number(cost.p);
    writer.Key("salt");
    writer.Binary(salt);
    writer.Key("data");
    writer.Binary(data);
    writer.EndObject();
    return text;
}

void KeyFile::SetMaster(const Key& master, const Secret& password)
{
    salt.resize(SaltSize);
    FillRandom(salt);
    const Key derived = DeriveKey(password, salt, cost);
    data.clear();
    Seal(derived, MasterKeyText(master).View(), data);
}

std::optional<Key> KeyFile::Unlock(const Secret& password) const
{
    const Key derived = DeriveKey(password, salt, cost);
    Secret text(data.size() - std::min(data.size(), SealOverhead));
    if (!Open(derived, data, text.Data()))
        return std::nullopt;
    try {
        return ParseMaster(AsText(text.View()));
    } catch (const RepositoryError&) {
        REPOSITORY_RAISE(Failure::Damaged, "damaged: what the password opens is not a key");
    } catch (const Krt::Exception::YError&) {
        REPOSITORY_RAISE(Failure::Damaged, "damaged: what the password opens is not a valid key");
    }
}

} // namespace Agent::Repo
