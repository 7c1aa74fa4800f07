#include "Krt/File/YDirectory.h"

#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using namespace Krt::File;
using Krt::YString;

// Stands in for the kernel's answers while set: a file system that offers more than the real one may hold,
// and changes under the caller's eyes.
struct ScriptedAttributes
{
    std::function<ssize_t(char*, std::size_t)> list;
    std::function<ssize_t(const std::string&, char*, std::size_t)> get;
    int calls = 0;
};
ScriptedAttributes* g_script = nullptr;

ssize_t Answer(const std::string& bytes, char* buffer, std::size_t size)
{
    if (size == 0)
        return static_cast<ssize_t>(bytes.size());
    if (size < bytes.size()) {
        errno = ERANGE;
        return -1;
    }
    std::copy(bytes.begin(), bytes.end(), buffer);
    return static_cast<ssize_t>(bytes.size());
}

ssize_t Fail(int error)
{
    errno = error;
    return -1;
}

std::string Text(const Krt::Memory::YHeap<unsigned char>& heap)
{
    return heap.Size() == 0
               ? ""
               : std::string(reinterpret_cast<const char*>(heap.RawOffset<unsigned char>(0, 0)), heap.Size());
}

} // namespace

extern "C" {
[[gnu::visibility("default")]] ssize_t llistxattr(const char* path, char* buffer, size_t size)
{
    if (g_script == nullptr)
        return syscall(SYS_llistxattr, path, buffer, size);
    ++g_script->calls;
    return g_script->list(buffer, size);
}
[[gnu::visibility("default")]] ssize_t lgetxattr(const char* path, const char* name, void* buffer,
                                                 size_t size)
{
    if (g_script == nullptr)
        return syscall(SYS_lgetxattr, path, name, buffer, size);
    ++g_script->calls;
    return g_script->get(name, static_cast<char*>(buffer), size);
}
}

namespace {

class ExtendedAttributesTest : public testing::Test
{
protected:
    ~ExtendedAttributesTest() override { g_script = nullptr; }

    // A script whose names are what `names` says at each call, with the name itself as value.
    void Script(std::function<std::string()> names)
    {
        m_script.list = [names](char* buffer, std::size_t size) {
            return Answer(names(), buffer, size);
        };
        m_script.get = [](const std::string& name, char* buffer, std::size_t size) {
            return Answer(name, buffer, size);
        };
        g_script = &m_script;
    }

    Testing::TemporaryDirectory m_temporary;
    ScriptedAttributes m_script;
};

TEST_F(ExtendedAttributesTest, GoByPathByFileAndByEntry)
{
    const YPath path(m_temporary.Write("file", "x").c_str());
    if (setxattr(path.CStr(), "user.probe", "p", 1, 0) != 0)
        GTEST_SKIP() << "the file system of the temporary directory keeps no extended attributes";
    const YDirectory directory = YDirectory::Open(YPath(m_temporary.Path().c_str()));
    const Krt::Util::YUnxHandle file = directory.OpenFile("file");
    const std::string large(3000, 'v');
    AddExtendedAttribute(path, "user.a", "one\0two", 7, 0);
    AddExtendedAttribute(file, "user.b", "", 0, 0);
    directory.AddExtendedAttribute("file", "user.c", "old", 3, 0);
    directory.AddExtendedAttribute("file", "user.c", large.data(), 3000, 0);

    for (const auto& map : {GetExtendedAttributeMap(path), GetExtendedAttributeMap(file),
                            directory.GetExtendedAttributeMap("file")}) {
        EXPECT_EQ(Text(map.at("user.a")), std::string("one\0two", 7));
        EXPECT_EQ(Text(map.at("user.b")), "");
        EXPECT_EQ(Text(map.at("user.c")), large);
    }
    for (auto list : {ListExtendedAttributes(path), ListExtendedAttributes(file),
                      directory.ListExtendedAttributes("file")}) {
        list.sort();
        list.remove_if([](const YString& name) { return name.Left(5) != "user."; });
        EXPECT_EQ(list, (std::list<YString>{"user.a", "user.b", "user.c", "user.probe"}));
    }

    // A link itself can't bear these, and its target must not get them in its place.
    std::filesystem::create_symlink("file", m_temporary / "link");
    EXPECT_RAISES_OS(directory.AddExtendedAttribute("link", "user.d", "x", 1, 0), Krt::MessageType::General,
                     EPERM, "AddExtendedAttribute", "Failed to set extended attribute user.d of: link");
    EXPECT_FALSE(GetExtendedAttributeMap(YPath((m_temporary / "link").c_str())).contains("user.a"));
    EXPECT_FALSE(GetExtendedAttributeMap(path).contains("user.d"));
}

TEST_F(ExtendedAttributesTest, AskAgainForAListThatGrows)
{
    int asked = 0;
    std::size_t count = 0;
    Script([&] {
        // Outgrows the first buffer and then, between size and fetch, whatever was made ready for it.
        count = std::min<std::size_t>(4000, 500 + 700 * static_cast<std::size_t>(asked++));
        std::string names;
        for (std::size_t i = 0; i < count; ++i)
            names += "user.attribute" + std::to_string(i) + '\0';
        return names;
    });
    EXPECT_EQ(ListExtendedAttributes(YPath("/x")).size(), 4000u);
    asked = 0;
    EXPECT_EQ(Text(GetExtendedAttributeMap(YPath("/x")).at("user.attribute3999")), "user.attribute3999");
}

TEST_F(ExtendedAttributesTest, CostOneCallWhereThereAreNone)
{
    Script([] { return ""; });
    EXPECT_TRUE(GetExtendedAttributeMap(YPath("/x")).empty());
    EXPECT_EQ(m_script.calls, 1);
}

TEST_F(ExtendedAttributesTest, FailAsTheSystemDoes)
{
    const struct
    {
        const char* name;
        int listError, valueError;
        int raised; // 0: the map without the failing attribute
    } rows[] = {{"no attributes on this file system", ENOTSUP, 0, ENOTSUP},
                {"list forbidden", EACCES, 0, EACCES},
                {"attribute gone meanwhile", 0, ENODATA, 0},
                {"attribute listed but not given", 0, ENOTSUP, 0},
                {"value forbidden", 0, EACCES, EACCES}};
    for (const auto& row : rows) {
        Script([] { return std::string("user.bad\0user.good\0", 19); });
        if (row.listError != 0)
            m_script.list = [&](char*, std::size_t) {
                return Fail(row.listError);
            };
        m_script.get = [&](const std::string& name, char* buffer, std::size_t size) {
            return name == "user.bad" ? Fail(row.valueError) : Answer("good", buffer, size);
        };
        ExtendedAttributeMap map;
        const auto error = Testing::CatchError([&] { map = GetExtendedAttributeMap(YPath("/x")); });
        EXPECT_EQ(error ? error->GetOsError() : 0, row.raised) << row.name;
        EXPECT_EQ(map.size(), row.raised == 0 ? 1u : 0u) << row.name;
        if (row.raised == ENOTSUP) {
            EXPECT_EQ(error->GetCode(), Krt::ErrorCode::AttributesUnavailable) << row.name;
        }
    }
}

} // namespace
