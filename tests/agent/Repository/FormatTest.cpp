// The parts of the format, each on its own: against known results, and against what no writer writes.
#include "agent/Repository/Config.h"
#include "agent/Repository/Failure.h"
#include "agent/Repository/Index.h"
#include "agent/Repository/KeyFile.h"
#include "agent/Repository/Lock.h"
#include "agent/Repository/Look.h"
#include "agent/Repository/NameText.h"
#include "agent/Repository/Pack.h"
#include "agent/Repository/Snapshot.h"
#include "agent/Repository/Tree.h"
#include "agent/Repository/Zstd.h"

#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <boost/json.hpp>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace Agent::Repo;

namespace {

Bytes FromHex(std::string_view digits)
{
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16)));
    return bytes;
}

boost::json::value Golden(const std::string& name)
{
    return boost::json::parse(Testing::ReadFile(GOLDEN_DIRECTORY "/repository/" + name));
}

std::string Text(const boost::json::value& object, const char* key)
{
    return std::string(object.at(key).as_string());
}

Key KeyOf(const std::string& digits)
{
    return Key(Secret(FromHex(digits)));
}

// The message of the damage that the call raises, or nothing.
std::string DamageOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const RepositoryError& error) {
        return error.GetFailure() == Failure::Damaged ? error.GetMessage().Bytes() : "another failure";
    }
    return {};
}

TEST(Sealing, FlippedBitIsRefused)
{
    for (const auto golden = Golden("crypto.json"); const auto& known : golden.at("sealed").as_array()) {
        SCOPED_TRACE(Text(known, "what"));
        const Key key = KeyOf(Text(known, "key"));
        const Bytes plaintext = FromHex(Text(known, "plaintext"));
        Bytes sealed;
        SealWithIv(key, FromHex(Text(known, "iv")), plaintext, sealed);
        EXPECT_EQ(sealed, FromHex(Text(known, "iv") + Text(known, "ciphertext") + Text(known, "mac")));
        Bytes opened(plaintext.size());
        for (std::size_t bit = 0; bit < 8 * sealed.size(); bit += 7) {
            Bytes damaged = sealed;
            damaged[bit / 8] ^= static_cast<unsigned char>(1 << bit % 8);
            EXPECT_FALSE(Open(key, damaged, opened));
        }
        EXPECT_FALSE(Open(key, ByteView(sealed).first(SealOverhead - 1), {}));
        EXPECT_TRUE(Open(key, sealed, opened));
        EXPECT_EQ(opened, plaintext);
        const auto inPlace = OpenInPlace(key, sealed);
        EXPECT_TRUE(std::equal(inPlace.begin(), inPlace.end(), plaintext.begin(), plaintext.end()));
    }
    EXPECT_TRUE(Testing::CatchError([] { Key(Secret(Key::Size)); })) << "zeros are not a key";
}

TEST(KeyFile, KnownKeysAreDerivedAndExcessiveCostsRefused)
{
    for (const auto golden = Golden("crypto.json"); const auto& known : golden.at("kdf").as_array()) {
        const auto number = [&known](const char* key) {
            return known.at(key).to_number<std::uint32_t>();
        };
        const Key key = DeriveKey(Secret(AsBytes(Text(known, "password"))), FromHex(Text(known, "salt")),
                                  {number("N"), number("r"), number("p")});
        const Key expected = KeyOf(Text(known, "key"));
        EXPECT_TRUE(std::ranges::equal(key.Encryption(), expected.Encryption()));
        EXPECT_TRUE(std::ranges::equal(key.MacK(), expected.MacK()));
        EXPECT_TRUE(std::ranges::equal(key.MacR(), expected.MacR()));
    }
    const std::tuple<std::uint64_t, std::uint32_t, std::uint32_t, bool> costs[] = {
        {32768, 8, 10, true},
        {1 << 20, 7, 1, true},
        {1 << 20, 8, 1, false},
        {1u << 30, 1, 1, false},
        {1000, 8, 1, false},
        {0, 8, 1, false},
        {16, 0, 1, false},
        {16, 1, 0, false},
        {65536, 1, 1, false},
        {UINT64_C(1) << 63, 8, 1, false},
        {2, UINT32_MAX, UINT32_MAX, false},
        {32768, 8, 1 << 20, false}};
    for (const auto& [n, r, p, isAcceptable] : costs)
        EXPECT_EQ((ScryptCost{n, r, p}.IsAcceptable()), isAcceptable) << n << " " << r << " " << p;
}

TEST(KeyFile, WrongPasswordDiffersFromDamage)
{
    KeyFile file;
    file.cost = {16, 1, 1};
    file.username = "a \"name\"";
    const Key master = Key::Random();
    const Secret password(AsBytes("secret"));
    file.SetMaster(master, password);
    const std::string json = file.ToJson();
    const KeyFile read = KeyFile::Parse(json);
    EXPECT_EQ(read.username, file.username);
    ASSERT_TRUE(read.Unlock(password));
    EXPECT_TRUE(std::ranges::equal(read.Unlock(password)->Encryption(), master.Encryption()));
    EXPECT_FALSE(read.Unlock(Secret(AsBytes("Secret"))));
    EXPECT_FALSE(read.Unlock(Secret()));

    KeyFile other = file;
    other.data.clear();
    Seal(DeriveKey(password, file.salt, file.cost), AsBytes("{\"encrypt\":\"AAAA\"}"), other.data);
    EXPECT_NE(DamageOf([&] { other.Unlock(password); }), "");
    const auto with = [&json](const std::string& from, const std::string& to) {
        std::string changed = json;
        changed.replace(changed.find(from), from.size(), to);
        return changed;
    };
    for (const std::string& text :
         {with("scrypt", "argon2"), with("\"N\":16", "\"N\":1073741824"), with("\"p\":1", "\"p\":1.0"),
          with("\"salt\":\"", "\"salt\":\"AAAA"), with("\"data\"", "\"tada\""),
          json.substr(0, json.size() - 1), json + "x", std::string()})
        EXPECT_NE(DamageOf([&] { KeyFile::Parse(text); }), "") << text;
}

TEST(NameText, NamesAreQuotedAsInFormat)
{
    const auto golden = Golden("names.json");
    std::string quoted, json, name;
    for (const auto& known : golden.at("names").as_array()) {
        const Bytes bytes = FromHex(Text(known, "name_hex"));
        quoted.clear();
        json.clear();
        AppendQuotedName(AsText(bytes), quoted);
        JsonWriter(json).String(quoted);
        EXPECT_EQ(quoted, Text(known, "quoted"));
        EXPECT_EQ(json, Text(known, "json"));
        ASSERT_TRUE(UnquoteName(JsonReader(json).String(), name));
        EXPECT_EQ(name, AsText(bytes));
    }
    for (const auto& known : golden.at("strings").as_array()) {
        json.clear();
        JsonWriter(json).String(AsText(FromHex(Text(known, "hex"))));
        EXPECT_EQ(json, Text(known, "go122"));
        EXPECT_EQ(std::string(JsonReader(Text(known, "go119")).String()), JsonReader(json).String());
    }
    EXPECT_TRUE(UnquoteName(R"(\141\x62\u0063\U00000064\a\377)", name));
    EXPECT_EQ(name, "abcd\a\xFF");
    for (const char* const text :
         {"\\", "\\'", "\\x4", "\\400", "\\08", "\\ud800", "\\U00110000", "a\"b", "a\nb", "\\q"})
        EXPECT_FALSE(UnquoteName(text, name)) << text;
    EXPECT_FALSE(IsEntryName(std::string_view("a\0b", 3)) || IsEntryName("..") || IsEntryName("a/b") ||
                 IsEntryName(""));
}

TEST(Json, OnlyValidTextIsAccepted)
{
    const std::string text = " { \"a\\u00E9\" : [ 1 , -2.5e+3 , true , null , { } , [ ] , "
                             "\"\\ud83d\\ude00\\ud800\\u0041\\/\" ] , \"b\" : 0 } ";
    JsonReader reader(text);
    std::string_view key;
    reader.BeginObject();
    ASSERT_TRUE(reader.NextKey(key));
    EXPECT_EQ(key, "a\xC3\xA9");
    reader.BeginArray();
    ASSERT_TRUE(reader.NextItem());
    EXPECT_EQ(reader.Unsigned(), 1u);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(reader.NextItem());
        reader.Skip();
    }
    ASSERT_TRUE(reader.NextItem());
    EXPECT_EQ(reader.String(), "\xF0\x9F\x98\x80\xEF\xBF\xBD"
                               "A/");
    EXPECT_FALSE(reader.NextItem());
    ASSERT_TRUE(reader.NextKey(key));
    EXPECT_EQ(reader.Skip(), "0");
    EXPECT_FALSE(reader.NextKey(key));
    reader.End();

    const std::string deep(20'000, '[');
    for (const std::string bad :
         {"",     "{",   "{\"a\"}", "{\"a\":1,}", "{,}",       "[1,]",     "[1 2]",   "01",          "1.",
          "-",    "+1",  "1e",      "nul",        "nullx",     "\"\x01\"", "\"\\x\"", "\"\\u12g4\"", "\"a",
          "\"\\", "1 1", "]",       "{\"a\":}",   deep.c_str()})
        EXPECT_NE(DamageOf([&] {
                      JsonReader broken(bad);
                      broken.Skip();
                      broken.End();
                  }),
                  "")
            << bad.substr(0, 20);
    for (const char* const number : {"3.0", "-0", "1e2", "18446744073709551616", "\"3\"", "00"})
        EXPECT_NE(DamageOf([&] { JsonReader(number).Unsigned(); }), "") << number;
}

TEST(Timestamp, InstantAndZoneAreKept)
{
    const std::tuple<const char*, std::int64_t, std::uint32_t> times[] = {
        {"2024-02-29T12:34:56.789+05:30", 1709190296, 789'000'000}, {"1970-01-01T00:00:00Z", 0, 0},
        {"1969-12-31T23:59:59.999999999Z", -1, 999'999'999},        {"0000-01-01T00:00:00Z", -62167219200, 0},
        {"9999-12-31T23:59:59-11:45", 253402300799 + 42300, 0},
    };
    for (const auto& [text, seconds, nanoseconds] : times) {
        const auto time = Timestamp::Parse(text);
        ASSERT_TRUE(time) << text;
        EXPECT_EQ(time->seconds, seconds) << text;
        EXPECT_EQ(time->nanoseconds, nanoseconds);
        EXPECT_EQ(time->ToText(), text);
    }
    for (const char* const text :
         {"2023-02-29T00:00:00Z", "2024-02-29T12:34:56", "2024-02-29 12:34:56Z", "2024-02-29T24:00:00Z",
          "2024-02-29T12:34:56.Z", "2024-02-29T12:34:56+0530", "2024-02-29T12:34:56Zx", "24-02-29T12:34:56Z",
          ""})
        EXPECT_FALSE(Timestamp::Parse(text)) << text;
    EXPECT_LT(*Timestamp::Parse("2024-01-01T00:00:00+02:00"), *Timestamp::Parse("2023-12-31T23:00:00Z"));
    EXPECT_EQ(Timestamp::Local(INT64_MAX, 0).ToText(), "9999-12-31T23:59:59.999999999Z");
    setenv("TZ", "Asia/Kolkata", 1);
    tzset();
    EXPECT_EQ(Timestamp::Local(1709190296, 0).ToText().substr(0, 19), "2024-02-29T12:34:56");
    EXPECT_EQ(Timestamp::Local(-3000000000, 0).ToText(), "1874-12-07T18:40:00Z") << "an offset with seconds";
    unsetenv("TZ");
    tzset();
}

TEST(Zstd, OutputIsLimited)
{
    const Bytes zeros(100 << 20);
    Bytes frames, out;
    Compress(zeros, frames);
    Decompress(frames, zeros.size(), out);
    EXPECT_TRUE(out == zeros);
    DecompressUpTo(frames, zeros.size(), out);
    EXPECT_TRUE(out == zeros);
    for (const std::size_t size :
         {std::size_t(0), std::size_t(1000), zeros.size() - 1, zeros.size() + 1, std::size_t(UINT32_MAX)})
        EXPECT_NE(DamageOf([&] { Decompress(frames, size, out); }), "") << size;
    EXPECT_NE(DamageOf([&] { DecompressUpTo(frames, zeros.size() - 1, out); }), "");
    const Bytes content(1000, 'x');
    Bytes frame;
    Compress(content, frame);
    for (std::size_t size = 0; size < frame.size(); ++size) {
        EXPECT_NE(DamageOf([&] { Decompress(ByteView(frame).first(size), content.size(), out); }), "");
        EXPECT_NE(DamageOf([&] { DecompressUpTo(ByteView(frame).first(size), 1 << 20, out); }), "");
    }
    frame.insert(frame.end(), frame.begin(), frame.begin() + static_cast<long>(frame.size()));
    DecompressUpTo(frame, 2000, out);
    EXPECT_EQ(out, Bytes(2000, 'x')) << "two frames";
}

TEST(Look, EndsWorkOnLargeContent)
{
    const Bytes zeros(100 << 20);
    const std::string blanks = "{" + std::string(2 * LookStep, ' ') + "}", text = "\"" + blanks + "\"";
    Bytes frames, out;
    Compress(zeros, frames);
    const std::function<void()> works[] = {
        [&] { Decompress(frames, zeros.size(), out); },
        [&] { Id::Of(zeros); },
        [&] { JsonReader(blanks).Skip(); },
        [&] { JsonReader(text).String(); },
    };
    for (const auto& work : works) {
        EXPECT_NO_THROW(work());
        SetLook([] { throw 1; });
        EXPECT_THROW(work(), int);
        SetLook(nullptr);
    }
}

PackedBlob BlobOf(char letter, std::uint32_t offset, std::uint32_t length, bool isCompressed = true)
{
    PackedBlob blob;
    blob.handle.id.bytes.fill(static_cast<unsigned char>(letter));
    blob.offset = offset;
    blob.length = length;
    blob.isCompressed = isCompressed;
    blob.plainLength = isCompressed ? 500 : length - 32;
    return blob;
}

TEST(Pack, ImpossibleHeaderIsRefused)
{
    const Key key = Key::Random();
    PackWriter writer(key);
    const Bytes text(1000, 'x');
    writer.Add({BlobType::Data, Id::Of(text)}, text);
    writer.Add({BlobType::Data, Id::Of({})}, {});
    writer.Add({BlobType::Tree, Id::Of(text)}, text, false);
    const std::uint64_t blobBytes = writer.Size();
    const ByteView finished = writer.Finish();
    Bytes pack(finished.begin(), finished.end());
    const std::uint32_t size = ReadPackHeaderLength(pack, pack.size());
    const ByteView opened = OpenInPlace(key, std::span(pack).subspan(blobBytes, size));
    const Bytes header(opened.begin(), opened.end());
    EXPECT_EQ(ParsePackHeader(header, blobBytes), writer.GetBlobs());
    EXPECT_EQ(pack.size(), blobBytes + 41 + 37 + 37 + PackOverhead);

    for (std::size_t length = 0; length < header.size(); ++length)
        EXPECT_NE(DamageOf([&] { ParsePackHeader(ByteView(header).first(length), blobBytes); }), "")
            << length;
    const auto with = [&header](std::size_t at, unsigned char byte) {
        Bytes changed = header;
        changed[at] = byte;
        return changed;
    };
    for (const Bytes& changed : {with(0, 4), with(0, 0), with(1, 0), with(4, 0xFF)})
        EXPECT_NE(DamageOf([&] { ParsePackHeader(changed, blobBytes); }), "");
    EXPECT_NE(DamageOf([&] { ParsePackHeader(header, blobBytes + 1); }), "");
    for (const std::uint32_t length :
         {0u, 31u, static_cast<std::uint32_t>(pack.size()) - 3, PackHeaderLimit + 1, ~0u}) {
        const Bytes tail{static_cast<unsigned char>(length), static_cast<unsigned char>(length >> 8),
                         static_cast<unsigned char>(length >> 16), static_cast<unsigned char>(length >> 24)};
        EXPECT_NE(DamageOf([&] { ReadPackHeaderLength(tail, pack.size()); }), "") << length;
    }
    EXPECT_NE(DamageOf([&] { ReadPackHeaderLength(pack, 35); }), "");
}

TEST(Index, FilesAreUnitedAndDuplicatesCounted)
{
    const Id first = Id::Of(AsBytes("1")), second = Id::Of(AsBytes("2"));
    const PackedBlob blobs[] = {BlobOf('a', 0, 100), BlobOf('b', 100, 50, false)};
    IndexFileWriter writer;
    writer.Add(first, blobs);
    writer.Add(second, std::span(blobs).first(1));
    const std::string json = writer.Finish();
    Index index;
    index.AddFile(json);
    index.AddFile(json);
    EXPECT_EQ(index.CountBlobs(), 3u);
    EXPECT_EQ(index.CountDuplicates(), 3u);
    ASSERT_EQ(index.GetPacks().size(), 2u);
    EXPECT_EQ(index.GetPacks()[0].size, 100u + 50 + 41 + 37 + 36);
    EXPECT_EQ(index.FindPack(second), 1u);
    EXPECT_FALSE(index.FindPack(Id()));
    EXPECT_EQ(index.FindAll(blobs[0].handle).size(), 2u);
    EXPECT_EQ(index.Find(blobs[1].handle)->blob, blobs[1]);
    EXPECT_FALSE(index.Has({BlobType::Tree, blobs[0].handle.id}));
    Index hostile;
    for (std::uint32_t i = 0; i < 3000; ++i)
        hostile.AddPack(first, std::vector{BlobOf('a', i, 100)});
    EXPECT_EQ(hostile.FindAll(blobs[0].handle).size(), 1000u);

    for (std::uint32_t i = 0; i < 200'000; ++i) {
        PackedBlob blob = BlobOf('x', i, 40);
        std::memcpy(blob.handle.id.bytes.data(), &i, sizeof(i));
        index.AddPack(Id::Of(AsBytes(std::to_string(i % 3000))), std::span(&blob, 1));
    }
    EXPECT_EQ(index.CountBlobs(), 200'003u);
    EXPECT_EQ(index.GetPacks().size(), 3000u);
    for (std::uint32_t number = 0; number < 200'003; number += 997)
        EXPECT_EQ(index.Find(index.At(number).blob.handle)->pack, index.At(number).pack);

    const std::string id = first.ToHex();
    const std::string blob = "{\"id\":\"" + id + "\",\"type\":\"data\",\"offset\":0,\"length\":40}";
    const auto file = [&id](const std::string& content) {
        return "{\"supersedes\":[],\"PACKS\":[{\"id\":\"" + id + "\",\"blobs\":" + content + "}]}";
    };
    EXPECT_EQ(DamageOf([&] { index.AddFile(file("[" + blob + "]")); }), "");
    EXPECT_EQ(DamageOf([&] { index.AddFile(file("null")); }), "");
    for (const char* const change :
         {"\"length\":31", "\"length\":4294967296", "\"offset\":-1", "\"type\":\"dir\"", "\"id\":\"00\""}) {
        const std::string changed = blob.substr(0, blob.size() - 1) + "," + change + "}";
        EXPECT_NE(DamageOf([&] { index.AddFile(file("[" + changed + "]")); }), "") << change;
    }
    EXPECT_NE(DamageOf([&] { index.AddFile("{\"packs\":[{\"blobs\":[]}]}"); }), "");

    // In pieces, as long text is read
    for (int i = 0; i < 1000; ++i)
        writer.Add(first, blobs);
    for (const std::string& text : {writer.Finish(), file("[" + blob + "]")}) {
        std::size_t at = 0, visited = 0;
        const auto source = [&](std::span<char> out) {
            const std::size_t size = text.copy(out.data(), std::min<std::size_t>(out.size(), 100), at);
            at += size;
            return size;
        };
        const bool isPlain =
            ReadPlainIndexFile(source, [&](const Id& pack, std::span<const PackedBlob> read) {
                visited += pack == first && std::ranges::equal(read, blobs) ? 1u : 0u;
            });
        EXPECT_EQ(visited, isPlain ? 1000u : 0u);
        EXPECT_EQ(isPlain, text.starts_with("{\"packs\""));
    }
}

TEST(Tree, UnusualTreeIsReadAndUnknownMembersKept)
{
    const std::string text =
        R"({"x":[1, 2],"Nodes":[{"NAME":"a","name":"b\\x41","type":"symlink","mode":134218239,"uid":7,"linktarget_raw":"/w==",)"
        R"("linktarget":"?","content":null,"extended_attributes":[{"name":"user.n","value":null}],"k\u00e9y":1,"other":null,"key":[],"k\u00e9y":{"deep": [1.50]}}]})";
    TreeReader reader(text, UnknownMembers::Keep);
    Node node;
    ASSERT_TRUE(reader.Next(node));
    EXPECT_EQ(node.name, "bA");
    EXPECT_EQ(node.linkTarget, "\xFF");
    EXPECT_EQ(node.unknown, (std::vector<RawMember>{
                                {"k\xC3\xA9y", "{\"deep\": [1.50]}"}, {"other", "null"}, {"key", "[]"}}));
    EXPECT_FALSE(reader.Next(node) || reader.Next(node));
    EXPECT_EQ(reader.GetUnknown(), (std::vector<RawMember>{{"x", "[1, 2]"}}));
    for (const char* const empty : {"{\"nodes\":null}", "{}", "{\"nodes\":[]}\n"})
        EXPECT_FALSE(TreeReader(empty).Next(node));

    const std::string good = R"("name":"a","type":"file")";
    for (const std::string& bad :
         {std::string(R"("type":"file")"), std::string(R"("name":"a")"),
          std::string(R"("name":"a/b","type":"file")"), std::string(R"("name":"..","type":"file")"),
          std::string(R"("name":"\\q","type":"file")"), good + R"(,"mode":4294967296)",
          good + R"(,"size":3.0)", good + R"(,"content":["12"])", good + R"(,"mtime":"2024-01-01")",
          good + R"(,"uid":-1)"})
        EXPECT_NE(DamageOf([&] {
                      const std::string tree = "{\"nodes\":[{" + bad + "}]}";
                      TreeReader broken(tree);
                      broken.Next(node);
                  }),
                  "")
            << bad;
    EXPECT_NE(DamageOf([&] {
                  TreeReader twice(R"({"nodes":[],"nodes":[]})");
                  twice.Next(node);
              }),
              "");
}

TEST(Tree, WrittenTextHasPrescribedForm)
{
    Node node;
    node.name = "a\"";
    node.type = NodeType::CharacterDevice;
    node.mode = MakeNodeMode(S_IFCHR | 04755);
    node.mtime = node.atime = node.ctime = *Timestamp::Parse("2024-02-29T12:34:56.5Z");
    node.user = "root";
    node.links = 1;
    node.device = 4293985279;
    node.linkTarget = "\xFF";
    node.attributes = {{"user.a", {}}, {"user.b", {1, 2, 3}}};
    node.genericAttributes = {{"own", "1"}};
    node.content.emplace();
    node.subtree = Id();
    node.unknown = {{"last", "{}"}};
    TreeWriter writer;
    writer.Add(node);
    EXPECT_TRUE(Testing::CatchError([&] { writer.Add(node); })) << "a name twice";
    EXPECT_EQ(
        writer.Finish({{"more", "1"}}),
        R"({"nodes":[{"name":"a\\\"","type":"chardev","mode":77595117,"mtime":"2024-02-29T12:34:56.5Z","atime":"2024-02-29T12:34:56.5Z",)"
        R"("ctime":"2024-02-29T12:34:56.5Z","uid":0,"gid":0,"user":"root","links":1,"linktarget":"\ufffd","linktarget_raw":"/w==",)"
        R"("extended_attributes":[{"name":"user.a","value":""},{"name":"user.b","value":"AQID"}],"generic_attributes":{"own":1},)"
        R"("device":4293985279,"content":[],"subtree":")" +
            Id().ToHex() + "\",\"last\":{}}],\"more\":1}\n");
    EXPECT_EQ(writer.Finish(), "{\"nodes\":[]}\n");
    for (const std::uint32_t kind : {S_IFREG, S_IFDIR, S_IFLNK, S_IFCHR, S_IFBLK, S_IFIFO, S_IFSOCK})
        EXPECT_EQ(MakeStatMode(MakeNodeMode(kind | 07654)), kind | 07654);
    EXPECT_EQ(MakeNodeMode(S_IFDIR | 0755), 2147484141u);
}

TEST(Snapshot, WrittenTextHasPrescribedForm)
{
    const std::string zeros(64, '0');
    const std::string json =
        R"({"time":"2024-02-29T12:34:56.5+05:30","parent":")" + zeros + R"(","tree":")" + zeros +
        R"(","paths":["/a","/b"],"hostname":"h","username":"u","uid":5,"gid":6,"excludes":["*"],"tags":["t"],"original":")" +
        zeros +
        R"(","program_version":"x 1","summary":{"backup_start":"2024-02-29T12:34:56Z","backup_end":"2024-02-29T12:34:57Z","files_new":1,)"
        R"("files_changed":2,"files_unmodified":3,"dirs_new":4,"dirs_changed":5,"dirs_unmodified":6,"data_blobs":7,"tree_blobs":8,)"
        R"("data_added":9,"data_added_packed":10,"total_files_processed":11,"total_bytes_processed":12},"own":[1.0],"other":null})";
    const Snapshot snapshot = Snapshot::Parse(json);
    EXPECT_EQ(snapshot.ToJson(), json);
    const std::string small = R"({"time":"2024-02-29T12:34:56Z","tree":")" + zeros + R"(","paths":[]})";
    EXPECT_EQ(Snapshot::Parse(R"({"Paths":null,"tags":null,"TREE":")" + zeros +
                              R"(","time":"2024-02-29T12:34:56Z"})")
                  .ToJson(),
              small);
    EXPECT_NE(DamageOf([] { Snapshot::Parse("{\"paths\":[]}"); }), "");
    struct FilterCase
    {
        SnapshotFilter filter;
        bool matches;
    };
    const FilterCase filters[] = {
        {{}, true},
        {{{"x", "h"}, {}, {}}, true},
        {{{"x"}, {}, {}}, false},
        {{{}, {{"x"}, {"t"}}, {}}, true},
        {{{}, {std::vector<std::string>()}, {}}, false},
        {{{}, {{"t", "x"}}, {}}, false},
        {{{}, {}, {"/b", "/a"}}, true},
        {{{}, {}, {"/c"}}, false},
    };
    for (const auto& [filter, matches] : filters)
        EXPECT_EQ(filter.Matches(snapshot), matches);
    const std::string lock =
        R"({"time":"2024-02-29T12:34:56Z","exclusive":true,"hostname":"h","username":"u","pid":7,"uid":8,"gid":9})";
    EXPECT_EQ(Lock::Parse(lock).ToJson(), lock);
}

TEST(Config, OtherVersionOrReduciblePolynomialIsRefused)
{
    const Config config = Config::Random(1);
    EXPECT_EQ(Config::Parse(config.ToJson()).polynomial, config.polynomial);
    EXPECT_EQ(Config::Parse(config.ToJson()).id, config.id);
    const auto text = [&config](const std::string& version, const std::string& polynomial) {
        return "{\"version\":" + version + ",\"id\":\"" + config.id.ToHex() + "\",\"chunker_polynomial\":\"" +
               polynomial + "\",\"own\":1}";
    };
    for (const char* const polynomial :
         {"3da3358b4dc173", "20f3f6dc32ceb3", "25b468838dcb75", "3abc9bff07d9e5"})
        EXPECT_EQ(Config::Parse(text("2", polynomial)).ToJson(), text("2", polynomial));
    for (const char* const polynomial :
         {"38f1e565e288df", "3da3358b4dc171", "20000000000001", "3fffffffffffff", "38f1e565e288dd", "7", "",
          "0", "g", "ffffffffffffffffff"})
        EXPECT_NE(DamageOf([&] { Config::Parse(text("2", polynomial)); }), "") << polynomial;
    for (const char* const version : {"0", "3"})
        EXPECT_EQ(DamageOf([&] { Config::Parse(text(version, "3da3358b4dc173")); }), "another failure");
}

} // namespace
