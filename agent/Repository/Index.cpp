#include "agent/Repository/Index.h"

#include "agent/Repository/Failure.h"
#include "agent/Repository/Json.h"
#include "agent/Repository/Pack.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <system_error>

namespace Agent::Repo {

namespace {

constexpr std::uint32_t CompressedFlag = 1u << 31;
constexpr std::uint32_t TreeFlag = 1u << 30;
constexpr std::uint32_t PackMask = TreeFlag - 1;
constexpr std::uint32_t NumberLimit = UINT32_MAX - 1;
constexpr std::size_t EntriesPerPart = 1 << 14;
constexpr std::size_t FirstSlots = 1 << 10;
constexpr std::size_t WindowSize = 64 << 10; // bytes of a text of which a part is in memory
constexpr std::size_t LongestItem = 512;     // bytes of a blob as writers write it, and more
constexpr int CopyLimit = 1000; // of a blob, so that a hostile index does not cost quadratic time

BlobType ReadBlobType(JsonReader& reader)
{
    const std::string_view word = reader.String();
    if (word == "data")
        return BlobType::Data;
    if (word != "tree")
        reader.RaiseDamaged("the type of a blob is not known");
    return BlobType::Tree;
}

// A blob that is not compressed has no length of its plaintext in the file.
void CompleteLengths(PackedBlob& blob)
{
    blob.isCompressed = blob.plainLength != 0;
    if (!blob.isCompressed)
        blob.plainLength = blob.length - std::uint32_t(SealOverhead);
}

PackedBlob ReadBlob(JsonReader& reader)
{
    PackedBlob blob;
    bool hasId = false;
    bool hasType = false;
    std::string_view key;
    reader.BeginObject();
    while (reader.NextKey(key)) {
        if (reader.IsNull())
            continue;
        if (IsKey(key, "id")) {
            blob.handle.id = reader.ReadId();
            hasId = true;
        } else if (IsKey(key, "type")) {
            blob.handle.type = ReadBlobType(reader);
            hasType = true;
        } else if (IsKey(key, "offset")) {
            blob.offset = static_cast<std::uint32_t>(reader.Unsigned(UINT32_MAX));
        } else if (IsKey(key, "length")) {
            blob.length = static_cast<std::uint32_t>(reader.Unsigned(UINT32_MAX));
        } else if (IsKey(key, "uncompressed_length")) {
            blob.plainLength = static_cast<std::uint32_t>(reader.Unsigned(UINT32_MAX));
        } else {
            reader.Skip();
        }
    }
    if (!hasId || !hasType)
        reader.RaiseDamaged("a blob has no id or no type");
    if (blob.length < SealOverhead)
        reader.RaiseDamaged("a blob is too short to be sealed");
    CompleteLengths(blob);
    return blob;
}

// Replaces the content of `blobs`.
Id ReadPack(JsonReader& reader, std::vector<PackedBlob>& blobs, const std::function<void()>& onItem)
{
    std::optional<Id> pack;
    std::string_view key;
    blobs.clear();
    reader.BeginObject();
    while (reader.NextKey(key)) {
        if (IsKey(key, "id")) {
            pack = reader.ReadId();
        } else if (IsKey(key, "blobs")) {
            blobs.clear();
            if (reader.IsNull())
                continue;
            reader.BeginArray();
            while (reader.NextItem()) {
                if (onItem)
                    onItem();
                blobs.push_back(ReadBlob(reader));
            }
        } else {
            reader.Skip();
        }
    }
    if (!pack)
        reader.RaiseDamaged("a pack has no id");
    return *pack;
}

// A part of a text, which is consumed from its beginning. Calls that return false consume nothing.
class TextWindow
{
public:
    explicit TextWindow(const TextSource& source) : m_source(source), m_bytes(new char[WindowSize]) {}

    // Makes LongestItem bytes available, or what the text has.
    void Fill()
    {
        if (m_rest.size() >= LongestItem || m_isAtEnd)
            return;
        std::memmove(m_bytes.get(), m_rest.data(), m_rest.size());
        std::size_t size = m_rest.size();
        while (size < WindowSize && !m_isAtEnd) {
            const std::size_t added = m_source({m_bytes.get() + size, WindowSize - size});
            m_isAtEnd = added == 0;
            size += added;
        }
        m_rest = {m_bytes.get(), size};
    }
    bool IsEmpty() const { return m_rest.empty(); }
    bool Take(std::string_view word)
    {
        const bool isNext = m_rest.starts_with(word);
        if (isNext)
            m_rest.remove_prefix(word.size());
        return isNext;
    }
    bool TakeId(Id& out)
    {
        const std::optional<Id> id = Id::FromHex(m_rest.substr(0, Id::Digits));
        if (!id)
            return false;
        out = *id;
        m_rest.remove_prefix(Id::Digits);
        return true;
    }
    bool TakeNumber(std::uint32_t& out)
    {
        const auto [end, error] = std::from_chars(m_rest.data(), m_rest.data() + m_rest.size(), out);
        const auto size = static_cast<std::size_t>(end - m_rest.data());
        if (error != std::errc() || (m_rest.front() == '0' && size != 1))
            return false;
        m_rest.remove_prefix(size);
        return true;
    }

private:
    const TextSource& m_source;
    const std::unique_ptr<char[]> m_bytes;
    std::string_view m_rest{m_bytes.get(), 0}; // of m_bytes
    bool m_isAtEnd = false;
};

bool TakeBlob(TextWindow& text, PackedBlob& blob)
{
    blob = {};
    text.Fill();
    if (!text.Take("{\"id\":\"") || !text.TakeId(blob.handle.id) || !text.Take("\",\"type\":\""))
        return false;
    const bool isData = text.Take("data");
    if (!isData && !text.Take("tree"))
        return false;
    blob.handle.type = isData ? BlobType::Data : BlobType::Tree;
    if (!text.Take("\",\"offset\":") || !text.TakeNumber(blob.offset) || !text.Take(",\"length\":") ||
        !text.TakeNumber(blob.length) || blob.length < SealOverhead)
        return false;
    if (text.Take(",\"uncompressed_length\":") && !text.TakeNumber(blob.plainLength))
        return false;
    CompleteLengths(blob);
    return text.Take("}");
}

bool TakePack(TextWindow& text, Id& pack, std::vector<PackedBlob>& blobs, const std::function<void()>& onItem)
{
    blobs.clear();
    text.Fill();
    if (!text.Take("{\"id\":\"") || !text.TakeId(pack) || !text.Take("\",\"blobs\":["))
        return false;
    do {
        if (onItem)
            onItem();
        if (!TakeBlob(text, blobs.emplace_back()))
            return false;
    } while (text.Take(","));
    return text.Take("]}");
}

// A hash table of numbers with open addressing. What the numbers mean is stored elsewhere. A byte of its hash
// is noted for each number, so that hardly any other number is looked at.
class Slots
{
public:
    // Calls `visit` for each number that may have the hash, in the order of insertion, until it
    // returns true. Returns whether it did.
    template <class Visit>
    bool Find(std::size_t hash, const Visit& visit) const
    {
        const unsigned char mark = MarkOf(hash);
        for (std::size_t at = PlaceOf(hash); m_marks[at] != 0; at = Next(at)) {
            if (m_marks[at] == mark && visit(m_numbers[at]))
                return true;
        }
        return false;
    }

    // `hashOf` gives the hash of each number that was inserted before.
    template <class HashOf>
    void Insert(std::size_t hash, std::uint32_t number, const HashOf& hashOf)
    {
        if (SlotsFor(m_used + 1) > m_marks.size())
            Resize(m_marks.size() + m_marks.size() / 2, hashOf);
        Put(hash, number);
        ++m_used;
    }
    // Takes memory for `count` numbers in all.
    template <class HashOf>
    void Reserve(std::size_t count, const HashOf& hashOf)
    {
        if (SlotsFor(count) > m_marks.size())
            Resize(SlotsFor(count), hashOf);
    }

private:
    static std::size_t SlotsFor(std::size_t count) { return count + count / 6 + 1; }
    static unsigned char MarkOf(std::size_t hash)
    {
        return static_cast<unsigned char>(std::max<std::size_t>(hash & 0xFF, 1));
    }
    std::size_t PlaceOf(std::size_t hash) const
    {
        __extension__ using Product = unsigned __int128;
        return static_cast<std::size_t>(Product(hash) * m_marks.size() >> 64);
    }
    std::size_t Next(std::size_t at) const { return at + 1 == m_marks.size() ? 0 : at + 1; }
    void Put(std::size_t hash, std::uint32_t number)
    {
        std::size_t at = PlaceOf(hash);
        while (m_marks[at] != 0)
            at = Next(at);
        m_marks[at] = MarkOf(hash);
        m_numbers[at] = number;
    }
    template <class HashOf>
    void Resize(std::size_t size, const HashOf& hashOf)
    {
        std::unique_ptr<std::uint32_t[]> numbers(new std::uint32_t[size]);
        m_marks = std::vector<unsigned char>(size);
        m_numbers = std::move(numbers);
        for (std::size_t number = 0; number < m_used; ++number)
            Put(hashOf(static_cast<std::uint32_t>(number)), static_cast<std::uint32_t>(number));
    }

    std::vector<unsigned char> m_marks = std::vector<unsigned char>(FirstSlots); // 0 for a free slot
    std::unique_ptr<std::uint32_t[]> m_numbers{new std::uint32_t[FirstSlots]};   // by slot
    std::size_t m_used = 0;
};

} // namespace

void ReadIndexFile(std::string_view json, const PackVisitor& visit, const std::function<void()>& onItem)
{
    JsonReader reader(json);
    std::vector<PackedBlob> blobs;
    std::string_view key;
    reader.BeginObject();
    while (reader.NextKey(key)) {
        if (!IsKey(key, "packs")) {
            reader.Skip();
            continue;
        }
        if (reader.IsNull())
            continue;
        reader.BeginArray();
        while (reader.NextItem()) {
            if (onItem)
                onItem();
            const Id pack = ReadPack(reader, blobs, onItem);
            visit(pack, blobs);
        }
    }
    reader.End();
}

bool ReadPlainIndexFile(const TextSource& source, const PackVisitor& visit,
                        const std::function<void()>& onItem)
{
    TextWindow text(source);
    text.Fill();
    if (!text.Take("{\"packs\":["))
        return false;
    Id pack;
    std::vector<PackedBlob> blobs;
    do {
        if (onItem)
            onItem();
        if (!TakePack(text, pack, blobs, onItem))
            return false;
        visit(pack, blobs);
    } while (text.Take(","));
    text.Fill();
    const bool isAtEnd = text.Take("]}");
    text.Take("\n");
    return isAtEnd && text.IsEmpty();
}

void IndexFileWriter::Add(const Id& pack, std::span<const PackedBlob> blobs)
{
    m_text += m_text.empty() ? "{\"packs\":[" : ",";
    JsonWriter writer(m_text);
    writer.BeginObject();
    writer.Key("id");
    writer.WriteId(pack);
    writer.Key("blobs");
    writer.BeginArray();
    for (const PackedBlob& blob : blobs) {
        writer.BeginObject();
        writer.Key("id");
        writer.WriteId(blob.handle.id);
        writer.Key("type");
        writer.String(blob.handle.type == BlobType::Tree ? "tree" : "data");
        writer.Key("offset");
        writer.Number(blob.offset);
        writer.Key("length");
        writer.Number(blob.length);
        if (blob.isCompressed) {
            writer.Key("uncompressed_length");
            writer.Number(blob.plainLength);
        }
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
    m_blobs += blobs.size();
}

std::string IndexFileWriter::Finish()
{
    if (m_text.empty())
        m_text = "{\"packs\":[";
    m_text += "]}\n";
    m_blobs = 0;
    return std::exchange(m_text, {});
}

struct Index::Tables
{
    // A blob, with its pack's number and what it is in one number.
    struct Entry
    {
        Id id;
        std::uint32_t offset;
        std::uint32_t length;
        std::uint32_t plainLength;
        std::uint32_t packAndFlags;
    };

    const Entry& At(std::uint32_t number) const
    {
        return parts[number / EntriesPerPart][number % EntriesPerPart];
    }
    static std::size_t HashOf(const Entry& entry) { return IdHash()(entry.id); }
    static bool Is(const Entry& entry, const BlobHandle& handle)
    {
        return entry.id == handle.id &&
               ((entry.packAndFlags & TreeFlag) != 0) == (handle.type == BlobType::Tree);
    }
    // As Slots::Find, with the number and the entry of each copy of a blob.
    template <class Visit>
    bool FindCopies(const BlobHandle& handle, const Visit& visit) const
    {
        return slots.Find(IdHash()(handle.id), [&](std::uint32_t number) {
            const Entry& entry = At(number);
            return Is(entry, handle) && visit(number, entry);
        });
    }
    auto HashByNumber() const
    {
        return [this](std::uint32_t number) {
            return HashOf(At(number));
        };
    }
    void Append(const Entry& entry)
    {
        KRT_RAISE_UNLESS(count < NumberLimit, Krt::ErrorCode::OutOfMemory, "Too many blobs for an index");
        if (parts.size() == count / EntriesPerPart)
            parts.push_back(std::make_unique<Entry[]>(EntriesPerPart));
        parts[count / EntriesPerPart][count % EntriesPerPart] = entry;
        slots.Insert(HashOf(entry), count, HashByNumber());
        ++count;
    }
    std::uint32_t PackNumber(const Id& id)
    {
        std::uint32_t found = 0;
        const std::size_t hash = IdHash()(id);
        if (packSlots.Find(hash, [&](std::uint32_t number) { return packs[found = number].id == id; }))
            return found;
        KRT_RAISE_UNLESS(packs.size() < PackMask, Krt::ErrorCode::OutOfMemory, "Too many packs for an index");
        found = static_cast<std::uint32_t>(packs.size());
        packs.push_back({id, PackOverhead});
        packSlots.Insert(hash, found, [this](std::uint32_t number) { return IdHash()(packs[number].id); });
        return found;
    }

    std::vector<std::unique_ptr<Entry[]>> parts;
    std::uint32_t count = 0; // of entries
    Slots slots;             // of entries, by id
    std::vector<IndexedPack> packs;
    Slots packSlots; // of packs, by id
    std::size_t duplicates = 0;
};

Index::Index() : m_tables(std::make_unique<Tables>()) {}
Index::~Index() = default;
Index::Index(Index&& other) noexcept = default;
Index& Index::operator=(Index&& other) noexcept = default;

void Index::AddFile(std::string_view json)
{
    ReadIndexFile(json, [this](const Id& pack, std::span<const PackedBlob> blobs) { AddPack(pack, blobs); });
}

void Index::Reserve(std::size_t blobs)
{
    m_tables->slots.Reserve(std::min<std::size_t>(blobs, NumberLimit), m_tables->HashByNumber());
}

void Index::AddPack(const Id& pack, std::span<const PackedBlob> blobs)
{
    Tables& tables = *m_tables;
    const std::uint32_t number = tables.PackNumber(pack);
    for (const PackedBlob& blob : blobs) {
        const bool isTree = blob.handle.type == BlobType::Tree;
        const Tables::Entry added{blob.handle.id, blob.offset, blob.length, blob.plainLength,
                                  number | (isTree ? TreeFlag : 0) |
                                      (blob.isCompressed ? CompressedFlag : 0)};
        int copies = 0;
        const bool isKnown = tables.FindCopies(blob.handle, [&](std::uint32_t, const Tables::Entry& entry) {
            return (entry.packAndFlags == added.packAndFlags && entry.offset == added.offset &&
                    entry.length == added.length && entry.plainLength == added.plainLength) ||
                   ++copies == CopyLimit;
        });
        if (isKnown) {
            ++tables.duplicates;
            continue;
        }
        tables.Append(added);
        IndexedPack& indexed = tables.packs[number];
        indexed.size += blob.length + PackEntrySize(blob.isCompressed);
        ++indexed.blobs;
        (isTree ? indexed.hasTrees : indexed.hasData) = true;
    }
}

bool Index::Has(const BlobHandle& handle) const
{
    return m_tables->FindCopies(handle, [](std::uint32_t, const Tables::Entry&) { return true; });
}

std::optional<IndexedBlob> Index::Find(const BlobHandle& handle) const
{
    std::uint32_t found = 0;
    const bool isFound = m_tables->FindCopies(handle, [&found](std::uint32_t number, const Tables::Entry&) {
        found = number;
        return true;
    });
    return isFound ? std::optional(At(found)) : std::nullopt;
}

void Index::VisitAll(const BlobHandle& handle,
                     const std::function<void(const IndexedBlob& copy)>& visit) const
{
    m_tables->FindCopies(handle, [&](std::uint32_t number, const Tables::Entry&) {
        visit(At(number));
        return false;
    });
}

std::vector<IndexedBlob> Index::FindAll(const BlobHandle& handle) const
{
    std::vector<IndexedBlob> copies;
    VisitAll(handle, [&copies](const IndexedBlob& copy) { copies.push_back(copy); });
    return copies;
}

std::uint32_t Index::LengthOf(const BlobHandle& handle) const
{
    std::uint32_t length = 0;
    m_tables->FindCopies(handle, [&length](std::uint32_t, const Tables::Entry& entry) {
        length = std::max({length, entry.length, entry.plainLength});
        return false;
    });
    return length;
}

IndexedBlob Index::At(std::uint32_t number) const
{
    KRT_RAISE_UNLESS(number < m_tables->count, Krt::ErrorCode::InvalidArgument,
                     "Blob number " << number << " out of range");
    const Tables::Entry& entry = m_tables->At(number);
    IndexedBlob indexed;
    indexed.blob.handle.type = (entry.packAndFlags & TreeFlag) != 0 ? BlobType::Tree : BlobType::Data;
    indexed.blob.handle.id = entry.id;
    indexed.blob.offset = entry.offset;
    indexed.blob.length = entry.length;
    indexed.blob.plainLength = entry.plainLength;
    indexed.blob.isCompressed = (entry.packAndFlags & CompressedFlag) != 0;
    indexed.pack = entry.packAndFlags & PackMask;
    indexed.number = number;
    return indexed;
}

const std::vector<IndexedPack>& Index::GetPacks() const
{
    return m_tables->packs;
}

std::optional<std::uint32_t> Index::FindPack(const Id& pack) const
{
    std::uint32_t found = 0;
    const bool isFound = m_tables->packSlots.Find(IdHash()(pack), [&](std::uint32_t number) {
        found = number;
        return m_tables->packs[number].id == pack;
    });
    return isFound ? std::optional(found) : std::nullopt;
}

std::size_t Index::CountBlobs() const
{
    return m_tables->count;
}

std::size_t Index::CountDuplicates() const
{
    return m_tables->duplicates;
}

} // namespace Agent::Repo
