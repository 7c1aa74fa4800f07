#include "agent/Repository/Sealing.h"

#include "agent/Repository/Failure.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <pthread.h>

namespace Agent::Repo {

namespace {

constexpr std::size_t IvSize = 16;
constexpr std::size_t TagSize = 16;
// OpenSSL takes lengths as int.
constexpr std::size_t PieceSize = 1 << 30;
// Takes the place of a key in a context that is not in use.
constexpr std::array<unsigned char, Key::EncryptionSize> NoKey{};

void Check(bool isDone)
{
    if (isDone) [[likely]]
        return;
    ERR_clear_error();
    KRT_RAISE(Krt::ErrorCode::CryptoFailure, "OpenSSL failed to seal or open");
}

struct Free
{
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
    void operator()(EVP_MAC* algorithm) const { EVP_MAC_free(algorithm); }
};

// What a thread needs. Fetching an algorithm takes longer than sealing a small blob.
class Contexts
{
public:
    static Contexts& OfThread()
    {
        thread_local Contexts contexts;
        return contexts;
    }

    // Encrypts or decrypts: in this mode both are one operation.
    void Transform(const Key& key, const unsigned char* iv, ByteView input, unsigned char* output)
    {
        bool isDone =
            EVP_EncryptInit_ex2(m_counter.get(), nullptr, key.Encryption().data(), iv, nullptr) == 1;
        for (std::size_t at = 0; isDone && at < input.size(); at += PieceSize) {
            const int size = static_cast<int>(std::min(PieceSize, input.size() - at));
            int written = 0;
            isDone =
                EVP_EncryptUpdate(m_counter.get(), output + at, &written, input.data() + at, size) == 1 &&
                written == size;
        }
        // Also after a failure, so that the key does not stay in the context.
        const bool isCleared =
            EVP_EncryptInit_ex2(m_counter.get(), nullptr, NoKey.data(), NoKey.data(), nullptr) == 1;
        Check(isDone && isCleared);
    }

    void ComputeTag(const Key& key, const unsigned char* iv, ByteView ciphertext, unsigned char* tag)
    {
        std::array<unsigned char, 2 * Key::MacPartSize> macKey;
        std::copy(key.MacR().begin(), key.MacR().end(), macKey.begin());
        int written = 0;
        const bool isMasked =
            EVP_EncryptInit_ex2(m_block.get(), nullptr, key.MacK().data(), nullptr, nullptr) == 1 &&
            EVP_CIPHER_CTX_set_padding(m_block.get(), 0) == 1 &&
            EVP_EncryptUpdate(m_block.get(), macKey.data() + Key::MacPartSize, &written, iv, IvSize) == 1 &&
            written == static_cast<int>(Key::MacPartSize);
        const bool isKeyed =
            isMasked && EVP_MAC_init(m_mac.get(), macKey.data(), macKey.size(), nullptr) == 1;
        Wipe(macKey);
        std::size_t size = 0;
        const bool isDone = isKeyed &&
                            EVP_MAC_update(m_mac.get(), ciphertext.data(), ciphertext.size()) == 1 &&
                            EVP_MAC_final(m_mac.get(), tag, &size, TagSize) == 1 && size == TagSize;
        const bool isBlockCleared =
            EVP_EncryptInit_ex2(m_block.get(), nullptr, NoKey.data(), nullptr, nullptr) == 1;
        const bool isMacCleared = EVP_MAC_init(m_mac.get(), NoKey.data(), NoKey.size(), nullptr) == 1;
        Check(isDone && isBlockCleared && isMacCleared);
    }

private:
    Contexts() : m_counter(EVP_CIPHER_CTX_new()), m_block(EVP_CIPHER_CTX_new())
    {
        const std::unique_ptr<EVP_MAC, Free> poly(EVP_MAC_fetch(nullptr, "POLY1305", nullptr));
        m_mac.reset(poly ? EVP_MAC_CTX_new(poly.get()) : nullptr);
        Check(m_counter && m_block && m_mac &&
              EVP_EncryptInit_ex2(m_counter.get(), EVP_aes_256_ctr(), nullptr, nullptr, nullptr) == 1 &&
              EVP_EncryptInit_ex2(m_block.get(), EVP_aes_128_ecb(), nullptr, nullptr, nullptr) == 1);
    }

    std::unique_ptr<EVP_CIPHER_CTX, Free> m_counter;
    std::unique_ptr<EVP_CIPHER_CTX, Free> m_block;
    std::unique_ptr<EVP_MAC_CTX, Free> m_mac;
};

// The number of forks between the first process and this one. The child of a fork must not use IVs that its
// parent has drawn.
std::atomic<unsigned int> s_forks{0};
[[maybe_unused]] const int s_forkHandler = pthread_atfork(nullptr, nullptr, [] { ++s_forks; });

// Random IVs, of which a thread draws many at once: each draw costs a system call.
class IvSource
{
public:
    static std::span<const unsigned char, IvSize> Next()
    {
        thread_local IvSource source;
        return source.Take();
    }

private:
    std::span<const unsigned char, IvSize> Take()
    {
        if (m_next == m_drawn.size() || m_forks != s_forks) {
            m_forks = s_forks;
            FillRandom(m_drawn);
            m_next = 0;
        }
        const auto iv = std::span(m_drawn).subspan(m_next).first<IvSize>();
        m_next += IvSize;
        return iv;
    }

    std::array<unsigned char, 64 * IvSize> m_drawn;
    std::size_t m_next = m_drawn.size(); // the first byte that is not used
    unsigned int m_forks = 0;            // at the drawing
};

bool IsZero(ByteView bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte == 0; });
}

void SealAt(const Key& key, ByteView iv, ByteView plaintext, std::span<unsigned char> sealed)
{
    KRT_RAISE_UNLESS(sealed.size() == plaintext.size() + SealOverhead, Krt::ErrorCode::InvalidArgument,
                     "Memory for sealed bytes of another size");
    unsigned char* const ciphertext = sealed.data() + IvSize;
    std::copy(iv.begin(), iv.end(), sealed.begin());
    Contexts& contexts = Contexts::OfThread();
    contexts.Transform(key, iv.data(), plaintext, ciphertext);
    contexts.ComputeTag(key, iv.data(), {ciphertext, plaintext.size()}, ciphertext + plaintext.size());
}

} // namespace

Key::Key(Secret bytes) : m_bytes(std::move(bytes))
{
    KRT_RAISE_UNLESS(m_bytes.Size() == Size, Krt::ErrorCode::InvalidArgument, "Key of a wrong size");
    KRT_RAISE_UNLESS(!IsZero(Encryption()) && !IsZero(MacK()) && !IsZero(MacR()),
                     Krt::ErrorCode::InvalidArgument, "Key with a part of zeros");
}

Key Key::Random()
{
    Secret bytes(Size);
    FillRandom(bytes.Data());
    return Key(std::move(bytes));
}

void Seal(const Key& key, ByteView plaintext, Bytes& out)
{
    const std::size_t begin = out.size();
    out.resize(begin + SealOverhead + plaintext.size());
    SealInto(key, plaintext, std::span(out).subspan(begin));
}

void SealInto(const Key& key, ByteView plaintext, std::span<unsigned char> sealed)
{
    auto iv = IvSource::Next();
    while (IsZero(iv))
        iv = IvSource::Next();
    SealAt(key, iv, plaintext, sealed);
}

void SealWithIv(const Key& key, ByteView iv, ByteView plaintext, Bytes& out)
{
    KRT_RAISE_UNLESS(iv.size() == IvSize, Krt::ErrorCode::InvalidArgument, "IV of a wrong size");
    const std::size_t begin = out.size();
    out.resize(begin + SealOverhead + plaintext.size());
    SealAt(key, iv, plaintext, std::span(out).subspan(begin));
}

bool Open(const Key& key, ByteView sealed, std::span<unsigned char> plaintext)
{
    if (sealed.size() < SealOverhead)
        return false;
    const ByteView ciphertext = sealed.subspan(IvSize, sealed.size() - SealOverhead);
    KRT_RAISE_UNLESS(plaintext.size() == ciphertext.size(), Krt::ErrorCode::InvalidArgument,
                     "Memory for a plaintext of another size");
    Contexts& contexts = Contexts::OfThread();
    std::array<unsigned char, TagSize> tag;
    contexts.ComputeTag(key, sealed.data(), ciphertext, tag.data());
    if (CRYPTO_memcmp(tag.data(), sealed.data() + sealed.size() - TagSize, TagSize) != 0)
        return false;
    contexts.Transform(key, sealed.data(), ciphertext, plaintext.data());
    return true;
}

void OpenInto(const Key& key, ByteView sealed, std::span<unsigned char> plaintext)
{
    REPOSITORY_RAISE_UNLESS(sealed.size() == plaintext.size() + SealOverhead, Failure::Damaged,
                            "damaged: " << sealed.size() << " sealed bytes can't have " << plaintext.size()
                                        << " bytes of content");
    REPOSITORY_RAISE_UNLESS(Open(key, sealed, plaintext), Failure::Damaged,
                            "damaged: the authentication tag is wrong");
}

std::span<unsigned char> OpenInPlace(const Key& key, std::span<unsigned char> sealed)
{
    REPOSITORY_RAISE_UNLESS(sealed.size() >= SealOverhead, Failure::Damaged,
                            "damaged: too short to be sealed");
    const std::span<unsigned char> plaintext = sealed.subspan(IvSize, sealed.size() - SealOverhead);
    OpenInto(key, sealed, plaintext);
    return plaintext;
}

void FillRandom(std::span<unsigned char> memory)
{
    for (std::size_t at = 0; at < memory.size(); at += PieceSize)
        Check(RAND_priv_bytes(memory.data() + at,
                              static_cast<int>(std::min(PieceSize, memory.size() - at))) == 1);
}

} // namespace Agent::Repo
