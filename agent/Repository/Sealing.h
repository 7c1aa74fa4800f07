// Sealing: encryption with authentication, for everything that a repository stores. Sealed bytes are an IV
// (16 bytes), the plaintext in AES-256-CTR, and a Poly1305 tag of that ciphertext (16 bytes). Any thread may
// call any function. OpenSSL's contexts are kept for each thread, so nothing is allocated for each call; they
// contain expanded keys only during a call.
#pragma once

#include "agent/Repository/Secret.h"

namespace Agent::Repo {

/// Bytes by which sealing lengthens.
constexpr std::size_t SealOverhead = 32;

/// A key of encryption and authentication.
class Key
{
public:
    static constexpr std::size_t EncryptionSize = 32;                     ///< bytes of the AES-256 key
    static constexpr std::size_t MacPartSize = 16;                        ///< bytes of each of k and r
    static constexpr std::size_t Size = EncryptionSize + 2 * MacPartSize; ///< bytes in all

    /// The bytes are the AES-256 key, then k and r of the tag, in the order in which scrypt derives them. r
    /// is unmasked. Raises InvalidArgument for another size and for a part of zeros.
    explicit Key(Secret bytes);
    /// A random key.
    static Key Random();

    ByteView Encryption() const { return m_bytes.View().first(EncryptionSize); }
    ByteView MacK() const { return m_bytes.View().subspan(EncryptionSize, MacPartSize); }
    ByteView MacR() const { return m_bytes.View().last(MacPartSize); }

private:
    Secret m_bytes;
};

/// Appends the sealed plaintext to `out`, with a random IV. Raises CryptoFailure if OpenSSL fails. The
/// plaintext is not in `out`.
void Seal(const Key& key, ByteView plaintext, Bytes& out);
/// Offset of the ciphertext in sealed bytes.
constexpr std::size_t CiphertextOffset = 16;
/// Seal into memory that has SealOverhead bytes more than the plaintext. The plaintext is at CiphertextOffset
/// of it, or elsewhere.
void SealInto(const Key& key, ByteView plaintext, std::span<unsigned char> sealed);
/// Seal with this IV (16 bytes), for tests with known results: an IV may be used only once with a key.
void SealWithIv(const Key& key, ByteView iv, ByteView plaintext, Bytes& out);

/// Checks the tag and then decrypts into `plaintext`, which has SealOverhead bytes less than `sealed`. It may
/// be the very bytes of the ciphertext, at offset 16 of `sealed`. Returns false, with `plaintext` unchanged,
/// if the tag is wrong or there are fewer bytes than SealOverhead.
[[nodiscard]] bool Open(const Key& key, ByteView sealed, std::span<unsigned char> plaintext);
/// Opens into `plaintext`, as Open does. Raises Damaged, with `plaintext` unchanged, if the tag is wrong or
/// the plaintext has another size.
void OpenInto(const Key& key, ByteView sealed, std::span<unsigned char> plaintext);
/// Opens in place, and returns the plaintext inside of `sealed`. Raises Damaged if the tag is wrong.
std::span<unsigned char> OpenInPlace(const Key& key, std::span<unsigned char> sealed);

/// Fills the memory with random bytes that are fit for keys.
void FillRandom(std::span<unsigned char> memory);

} // namespace Agent::Repo
