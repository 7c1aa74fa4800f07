// Contents in a store: they come back as they went in, stand there once, and damage never passes for content.
#include "testing/Raises.h"
#include "testing/StoreFiles.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <tuple>

using namespace Agent;
namespace fs = std::filesystem;

namespace {

std::string RandomBytes(std::size_t size)
{
    std::mt19937 random(1);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

Address AddressOf(const std::string& content)
{
    Sha256 hash;
    hash.Add(content.data(), content.size());
    return hash.End();
}

class StoreObject : public ::testing::Test
{
protected:
    Address Put(const std::string& content, std::size_t piece = 1 << 16)
    {
        return Testing::WriteObject(writer, content, piece);
    }
    std::string Get(const Address& address, unsigned long long size) const
    {
        return Testing::ReadObject(store, address, size);
    }
    std::string PathOf(const Address& address) const
    {
        const std::string name = address.ToHex();
        return directory / ("store/objects/" + name.substr(0, 2) + "/" + name.substr(2));
    }

    std::size_t FilesIn(const std::string& folder) const
    {
        std::size_t files = 0;
        for (const auto& entry : fs::recursive_directory_iterator(directory / ("store/" + folder)))
            files += entry.is_regular_file();
        return files;
    }

    Testing::TemporaryDirectory directory;
    Store store = Store::OpenOrCreate(directory / "store");
    StoreSession session{store};
    ObjectWriter writer{session};
};

TEST_F(StoreObject, ComesBackAndStandsThereOnce)
{
    const std::tuple<const char*, std::string, std::size_t> cases[] = {
        {"empty", "", 1},
        {"one byte", "a", 1},
        {"largest in memory", RandomBytes(1 << 20), 4096},
        {"smallest streamed", RandomBytes((1 << 20) + 1), 65536},
        {"streamed in odd pieces", RandomBytes(3'000'000), 70'001},
        {"long run of zeros", std::string(20'000'000, '\0'), 1 << 20},
    };
    for (const auto& [name, content, piece] : cases) {
        SCOPED_TRACE(name);
        const Address address = Put(content, piece);
        EXPECT_EQ(address, AddressOf(content));
        EXPECT_FALSE(fs::exists(PathOf(address))) << "shown before it is on disk";
        EXPECT_EQ(Put(content, piece), address);
        session.PlaceObjects();
        EXPECT_TRUE(Get(address, content.size()) == content);
        EXPECT_EQ(Put(content, piece), address);
        EXPECT_EQ(FilesIn("tmp"), 1u) << "more than the session's lock";
    }
    EXPECT_EQ(FilesIn("objects"), std::size(cases));
    EXPECT_EQ(AddressOf("abc").ToHex(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_LT(fs::file_size(PathOf(AddressOf(std::string(20'000'000, '\0')))), 20'000u);
    EXPECT_EQ(fs::status(PathOf(AddressOf("a"))).permissions(),
              fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(StoreObject, DamageIsToldAndNeverPassesForContent)
{
    const std::string content = RandomBytes(300'000);
    const Address address = Put(content);
    session.PlaceObjects();
    const std::string path = PathOf(address);
    const std::string sound = Testing::ReadFile(path);
    std::string flipped = sound;
    flipped[200'000] = static_cast<char>(flipped[200'000] ^ 1);
    // A header that asks for a window of 2 GiB.
    const std::string hugeWindow("\x28\xB5\x2F\xFD\x00\xA8\x01\x00\x00", 9);
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"one bit", flipped, "its content does not have this address"},
        {"cut off", sound.substr(0, 150'000), "is damaged at offset 150000: the file is cut off"},
        {"empty", "", "ends after 0 of the 300000 bytes"},
        {"something behind it", sound + "more", "is damaged at offset"},
        {"itself again behind it", sound + sound, "holds more than the 300000 bytes"},
        {"no zstd data", "plain text, and long enough", "is damaged at offset 0: Unknown frame descriptor"},
        {"a window that takes too much memory", hugeWindow, "Frame requires too much memory"},
    };
    for (const auto& [name, bytes, told] : cases) {
        SCOPED_TRACE(name);
        fs::remove(path);
        std::ofstream(path, std::ios::binary) << bytes;
        const std::string error = Testing::ErrorOf([&] { Get(address, content.size()); });
        EXPECT_NE(error.find(": Object " + address.ToHex()), std::string::npos) << error;
        EXPECT_NE(error.find(told), std::string::npos) << error;
    }
}

TEST_F(StoreObject, AnotherSizeThanTheRecordsIsRefused)
{
    const std::string zeros(20'000'000, '\0');
    const Address address = Put(zeros);
    session.PlaceObjects();
    ObjectReader reader(store);
    reader.Open(address, 200'000);
    std::size_t given = 0;
    EXPECT_TRUE(Testing::CatchError([&] {
        for (auto block = reader.Next(); !block.empty(); block = reader.Next())
            given += block.size();
    }));
    EXPECT_LE(given, 200'000u) << "a small record must not fill the disk";
    EXPECT_TRUE(Testing::CatchError([&] { Get(address, zeros.size() + 1); }));
    reader.Open(address, zeros.size()); // goes on with another object
    EXPECT_EQ(Testing::ReadBlocks(reader).size(), zeros.size());
}

TEST_F(StoreObject, IsLedOutOfTheStoreByNoLink)
{
    const Address address = AddressOf("content");
    fs::create_directory_symlink(directory.MakeDirectory("outside"), fs::path(PathOf(address)).parent_path());
    Put("content");
    EXPECT_TRUE(Testing::CatchError([&] { session.PlaceObjects(); }));
    EXPECT_TRUE(fs::is_empty(directory / "outside"));
}

TEST_F(StoreObject, TakesThePlaceOfAnEmptyFileAndOfUnfinishedContent)
{
    const Address address = Put("content");
    session.PlaceObjects();
    fs::resize_file(PathOf(address), 0);
    const std::string large = RandomBytes(2'000'000);
    writer.Begin();
    writer.Append(large.data(), large.size());
    EXPECT_EQ(FilesIn("tmp"), 2u);
    Put("content");
    session.PlaceObjects();
    EXPECT_EQ(FilesIn("tmp"), 1u);
    EXPECT_EQ(Get(address, 7), "content");
}

TEST(Address, ReadsOnlyWhatItWrites)
{
    const std::string good = AddressOf("abc").ToHex();
    EXPECT_EQ(Address::FromHex(Krt::YString(good.c_str())), AddressOf("abc"));
    for (const std::string& bad :
         {std::string(), good.substr(1), good + "0", "A" + good.substr(1), "g" + good.substr(1)})
        EXPECT_TRUE(Testing::CatchError([&] { Address::FromHex(Krt::YString(bad.c_str())); })) << bad;
}

} // namespace
