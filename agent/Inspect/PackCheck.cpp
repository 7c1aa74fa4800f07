#include "agent/Inspect/PackCheck.h"

#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YScope.h"

#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <new>
#include <optional>

namespace Agent {

using Repo::ByteView;
using Repo::FileKind;
using Repo::FileName;
using Repo::Id;
using Repo::IndexedBlob;
using Repo::PackedBlob;
using Repo::RepositoryError;

namespace {

constexpr std::uint64_t StepSize = 16 << 20; // of reading; a larger blob is read as a whole
constexpr std::uint64_t ErrorLimit = 100;    // of a pack, which are reported one by one

class Hash
{
public:
    Hash()
    {
        Require(m_context != nullptr && EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) == 1);
    }
    void Add(ByteView bytes) { Require(EVP_DigestUpdate(m_context.get(), bytes.data(), bytes.size()) == 1); }
    Id Finish()
    {
        Id id;
        Require(EVP_DigestFinal_ex(m_context.get(), id.bytes.data(), nullptr) == 1);
        return id;
    }

private:
    static void Require(bool hasSucceeded)
    {
        KRT_RAISE_UNLESS(hasSucceeded, Krt::ErrorCode::CryptoFailure, "Failed to compute a SHA-256");
    }

    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> m_context{EVP_MD_CTX_new(), &EVP_MD_CTX_free};
};

RepositoryError NoMemoryFor(std::uint64_t length)
{
    try {
        REPOSITORY_RAISE(Repo::Failure::NoMemory, "not enough memory for its " << length << " bytes");
    } catch (const RepositoryError& error) {
        return error;
    }
}

// Returns true if no other part of the pack can be read, either. What a server fails to send may be one place
// of its disk.
bool IsEnd(const RepositoryError& error)
{
    return error.GetFailure() == Repo::Failure::Missing || (error.IsOfLocation() && error.GetOsError() != 0);
}

// Returns true if the reason is in the pack.
bool IsOfPack(const RepositoryError& error)
{
    return !error.IsOfLocation() && error.GetFailure() != Repo::Failure::NoMemory;
}

class PackCheck
{
public:
    PackCheck(CheckState& state, std::uint32_t pack, std::uint64_t size)
        : m_state(state), m_pack(pack),
          m_id(state.GetIndex().GetPacks()[pack].id), m_file{FileKind::Pack, m_id}, m_size(size)
    {
        for (const std::uint32_t number : state.BlobsOf(pack))
            m_blobs.push_back(state.GetIndex().At(number));
        std::sort(m_blobs.begin(), m_blobs.end(),
                  [](const IndexedBlob& a, const IndexedBlob& b) { return a.blob.offset < b.blob.offset; });
    }

    bool Run(); // as CheckPackContent

private:
    // Returns false if the call failed, which it reports.
    template <class Call>
    bool Named(const Call& call)
    {
        try {
            call();
            return true;
        } catch (const RepositoryError& error) {
            Fail(error);
            return false;
        }
    }

    void Fail(const std::string& text, bool isBroken = true);
    void Fail(const RepositoryError& error, const std::string& suffix = {});
    void CheckHeader();
    void DropOutside();
    void ReadBlobs();
    bool HasId() { return !m_isHashed || m_hash.Finish() == m_id; } // once after all bytes were hashed
    std::uint64_t SkipTo(std::uint64_t at, std::uint64_t end);
    std::uint64_t ReadStep(std::uint64_t at);
    void ReadTogether(std::size_t last, std::uint64_t begin, std::uint64_t end);
    void ReleaseMemory();
    std::optional<RepositoryError> Load(std::uint64_t offset, std::uint64_t length);
    bool CheckBlob(const IndexedBlob& copy, std::span<unsigned char> sealed);
    void Decode(const IndexedBlob& copy, std::span<unsigned char> sealed);
    void FailToRead(const RepositoryError& error, const std::string& what);

    CheckState& m_state;
    const std::uint32_t m_pack;
    const Id m_id;
    const FileName m_file;
    const std::uint64_t m_size;
    std::vector<IndexedBlob> m_blobs; // by offset
    std::size_t m_next = 0;           // in m_blobs
    Hash m_hash;
    bool m_isHashed = true; // all bytes were, in order
    bool m_isBroken = false;
    bool m_isUnread = false; // for a reason that is not in the pack
    std::uint64_t m_errors = 0;
    Repo::Bytes m_read;
    Repo::Bytes m_plaintext;
};

bool PackCheck::Run()
{
    Named([this] { CheckHeader(); });
    DropOutside();
    if (m_isUnread || !Named([this] { ReadBlobs(); })) {
        // The rest of the pack was not read.
        for (; m_next < m_blobs.size(); ++m_next)
            m_state.MarkBad(m_blobs[m_next].number);
    }
    if (m_isBroken)
        m_state.MarkBroken(m_pack);
    if (m_errors > ErrorLimit) {
        const std::uint64_t further = m_errors - ErrorLimit;
        m_state.AddError(m_file.Path() + ": further errors of the pack: " + std::to_string(further), further);
    }
    return !m_isUnread;
}

void PackCheck::Fail(const std::string& text, bool isBroken)
{
    m_isBroken = m_isBroken || isBroken;
    if (++m_errors > ErrorLimit)
        return;
    m_state.AddError(text.find(m_id.ToHex()) == std::string::npos ? m_file.Path() + ": " + text : text);
}

void PackCheck::Fail(const RepositoryError& error, const std::string& suffix)
{
    if (IsReadError(error))
        m_state.MarkUnreadable(m_pack);
    m_state.NoteUnread(error);
    m_isUnread = m_isUnread || error.IsOfLocation();
    Fail(ReasonOf(error).Bytes() + suffix, IsOfPack(error));
}

void PackCheck::CheckHeader()
{
    std::vector<PackedBlob> listed = m_state.GetRepository().LoadPackHeader(m_id, m_size);
    const bool isSame = std::equal(listed.begin(), listed.end(), m_blobs.begin(), m_blobs.end(),
                                   [](const PackedBlob& a, const IndexedBlob& b) { return a == b.blob; });
    if (!isSame)
        Fail("The header of the pack is not what the index says");
}

// The blobs beyond the end of a pack that is cut off. The others can still be read.
void PackCheck::DropOutside()
{
    std::erase_if(m_blobs, [this](const IndexedBlob& copy) {
        const bool isOutside = std::uint64_t(copy.blob.offset) + copy.blob.length > m_size;
        if (isOutside)
            m_state.MarkBad(copy.number);
        return isOutside;
    });
}

void PackCheck::ReadBlobs()
{
    std::uint64_t at = 0;
    while (m_next < m_blobs.size()) {
        at = SkipTo(at, m_blobs[m_next].blob.offset);
        at = ReadStep(at);
    }
    SkipTo(at, m_size);
    bool hasId = HasId();
    if (!hasId && !m_isBroken) { // a proxy may have sent wrong bytes
        m_hash = Hash();
        m_state.bytes -= m_size;
        SkipTo(0, m_size);
        hasId = HasId();
    }
    if (!hasId)
        Fail("The content of the pack does not have its id");
}

// Reads what no blob of the index covers.
std::uint64_t PackCheck::SkipTo(std::uint64_t at, std::uint64_t end)
{
    while (at < end) {
        const std::uint64_t length = std::min(end - at, StepSize);
        auto error = Load(at, length);
        if (error && error->GetFailure() == Repo::Failure::Damaged)
            error = Load(at, length);
        if (error)
            FailToRead(*error, std::to_string(length) + " bytes at offset " + std::to_string(at));
        else
            m_hash.Add(m_read);
        at += length;
    }
    return at;
}

// Reads and checks blobs without a gap between them. `at` is at the next one, or after its begin. If they
// can't be read together, as with a disk's bad sector in one of them, each is read alone.
std::uint64_t PackCheck::ReadStep(std::uint64_t at)
{
    const PackedBlob& first = m_blobs[m_next].blob;
    const std::uint64_t begin = first.offset;
    m_isHashed &= begin == at;
    std::uint64_t end = begin + first.length;
    if (first.IsTooLong()) {
        Named([&] { m_state.GetRepository().DecodeBlob(m_id, first, {}, m_plaintext); });
        m_state.MarkBad(m_blobs[m_next++].number);
        return SkipTo(at, end);
    }
    std::uint32_t largest = std::max(first.length, first.plainLength);
    std::size_t last = m_next + 1;
    for (; last < m_blobs.size() && m_blobs[last].blob.offset == end; ++last) {
        if (end + m_blobs[last].blob.length - begin > StepSize)
            break;
        end += m_blobs[last].blob.length;
        largest = std::max(largest, m_blobs[last].blob.plainLength);
    }
    if (largest <= Repo::LargeBlobSize) {
        ReadTogether(last, begin, end);
    } else {
        const Repo::LargeBlobTurn turn = Repo::Repository::TakeTurnFor(largest);
        const Krt::Util::YScope atEnd([this] { ReleaseMemory(); });
        ReadTogether(last, begin, end);
    }
    return std::max(at, end);
}

// Reads and checks the blobs before number `last`, which are between these offsets.
void PackCheck::ReadTogether(std::size_t last, std::uint64_t begin, std::uint64_t end)
{
    const bool isReadTogether = !Load(begin, end - begin);
    for (; m_next < last; ++m_next) {
        const IndexedBlob& copy = m_blobs[m_next];
        const PackedBlob& blob = copy.blob;
        const auto error = isReadTogether ? std::nullopt : Load(blob.offset, blob.length);
        if (error)
            FailToRead(*error, "blob " + blob.handle.ToText().Bytes());
        const std::uint64_t skipped = isReadTogether ? blob.offset - begin : 0;
        if (error || !CheckBlob(copy, std::span(m_read).subspan(skipped, blob.length)))
            m_state.MarkBad(copy.number);
    }
}

void PackCheck::ReleaseMemory()
{
    Repo::Bytes().swap(m_read);
    Repo::Bytes().swap(m_plaintext);
}

// Raises if no other part of the pack can be read, either.
bool PackCheck::CheckBlob(const IndexedBlob& copy, std::span<unsigned char> sealed)
{
    m_hash.Add(sealed);
    try {
        Decode(copy, sealed);
        return true;
    } catch (const RepositoryError& error) {
        if (IsEnd(error))
            throw;
        Fail(error);
        return false;
    }
}

void PackCheck::Decode(const IndexedBlob& copy, std::span<unsigned char> sealed)
{
    const Repo::Repository& repository = m_state.GetRepository();
    try {
        repository.DecodeBlob(m_id, copy.blob, sealed, m_plaintext);
        return;
    } catch (const RepositoryError& error) {
        if (error.GetFailure() != Repo::Failure::Damaged)
            throw;
    }
    repository.LoadCopy(copy, m_plaintext); // a proxy may have sent wrong bytes
}

// Returns why the range can't be read. Raises if no other part of the pack can be read, either.
std::optional<RepositoryError> PackCheck::Load(std::uint64_t offset, std::uint64_t length)
{
    try {
        m_state.GetRepository().GetBackend().Load(m_file, offset, length, m_read);
        m_state.bytes += length;
        return std::nullopt;
    } catch (const RepositoryError& error) {
        if (IsEnd(error))
            throw;
        return error;
    } catch (const std::bad_alloc&) {
        return NoMemoryFor(length);
    }
}

void PackCheck::FailToRead(const RepositoryError& error, const std::string& what)
{
    m_isHashed = false;
    Fail(error, " (" + what + ")");
}

} // namespace

bool CheckPackContent(CheckState& state, std::uint32_t pack, std::uint64_t size)
{
    return PackCheck(state, pack, size).Run();
}

} // namespace Agent
