// Index: in which packs blobs are, united from all index files. It is made for 10,000,000 blobs, for each of
// which it takes 57 bytes (measured with 1,000,000, and 40 blobs in a pack). Reading operations may be called
// by any number of threads at once, while no thread adds.
#pragma once

#include "agent/Repository/Blob.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent::Repo {

/// Called for a pack of an index file with its blobs. They live as long as the call.
using PackVisitor = std::function<void(const Id& pack, std::span<const PackedBlob> blobs)>;

/// Reads the JSON text of one index file, and calls `visit` for each pack in the file's order. Raises Damaged
/// with the offset for other text, and for offsets or lengths that no pack can have; packs before the
/// position were visited then. `onItem` is called for each pack and blob, however long the text is. What
/// these raise passes through.
void ReadIndexFile(std::string_view json, const PackVisitor& visit, const std::function<void()>& onItem = {});

/// Writes the next bytes of a text to the memory, and returns how many they are; 0 at the end of the text.
using TextSource = std::function<std::size_t(std::span<char> out)>;
/// Reads an index file as ReadIndexFile does, if its text is as writers write it: without spaces and unknown
/// members, and with the members in one order. A small part of the text is in memory at a time. Returns false
/// for other text, valid or not; packs before the position were visited then. What `source` raises passes
/// through.
bool ReadPlainIndexFile(const TextSource& source, const PackVisitor& visit,
                        const std::function<void()>& onItem = {});

/// Appends packs to the JSON text of an index file. One thread at a time.
class IndexFileWriter
{
public:
    /// Adds a pack with all of its blobs.
    void Add(const Id& pack, std::span<const PackedBlob> blobs);
    /// Bytes of the text so far.
    std::size_t Size() const { return m_text.size(); }
    std::size_t CountBlobs() const { return m_blobs; }
    /// The text. The writer begins the next file.
    std::string Finish();

private:
    std::string m_text;
    std::size_t m_blobs = 0;
};

/// A blob that the index has.
struct IndexedBlob
{
    PackedBlob blob;
    std::uint32_t pack = 0;   ///< number of its pack: an index into Index::GetPacks
    std::uint32_t number = 0; ///< its own number, below Index::CountBlobs
};

/// A pack that the index has.
struct IndexedPack
{
    Id id;
    std::uint64_t size = 0;  ///< bytes that the file has if these are all of its blobs
    std::uint32_t blobs = 0; ///< how many
    bool hasData = false;    ///< a blob of the type Data
    bool hasTrees = false;   ///< a blob of the type Tree
};

class Index
{
public:
    Index();
    ~Index();
    Index(Index&& other) noexcept;
    Index& operator=(Index&& other) noexcept;

    /// Takes memory to find this many blobs in all, so that it does not have to grow.
    void Reserve(std::size_t blobs);
    /// Adds an index file. See ReadIndexFile; packs that were read before a failure stay.
    void AddFile(std::string_view json);
    /// Adds blobs of a pack. An entry that the index already has for this pack is not added but counted, as
    /// are those after the thousandth copy of a blob.
    void AddPack(const Id& pack, std::span<const PackedBlob> blobs);

    /// Returns true if some pack has the blob.
    bool Has(const BlobHandle& handle) const;
    /// The location of the copy of the blob that was added first; nothing if the index does not have it.
    std::optional<IndexedBlob> Find(const BlobHandle& handle) const;
    /// Calls `visit` for each copy of the blob, in the order in which they were added.
    void VisitAll(const BlobHandle& handle, const std::function<void(const IndexedBlob& copy)>& visit) const;
    /// The locations of all copies of the blob.
    std::vector<IndexedBlob> FindAll(const BlobHandle& handle) const;
    /// The most bytes that a copy of the blob has, sealed or not; 0 if the index does not have it.
    std::uint32_t LengthOf(const BlobHandle& handle) const;
    /// The blob with a number below CountBlobs. Numbers are in the order in which blobs were added.
    IndexedBlob At(std::uint32_t number) const;

    /// The packs by number, in the order in which they were added.
    const std::vector<IndexedPack>& GetPacks() const;
    /// The number of a pack; nothing if the index does not have it.
    std::optional<std::uint32_t> FindPack(const Id& pack) const;

    /// How many blobs there are. Each copy in another pack counts.
    std::size_t CountBlobs() const;
    /// How many entries were left out.
    std::size_t CountDuplicates() const;

private:
    struct Tables;

    std::unique_ptr<Tables> m_tables;
};

} // namespace Agent::Repo
