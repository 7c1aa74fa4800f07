#include "Krt/File/YDirectory.h"
#include "Krt/File/YEntry.h"

#include "testing/CallHook.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/xattr.h>

namespace {

using namespace Krt::File;
using Krt::YString;
using Testing::CallHook;
using Testing::HookedCall;

std::string Text(Krt::Memory::YHeap<unsigned char> heap)
{
    return heap.Size() == 0 ? "" : std::string(heap.Cast<char>(), heap.Size());
}

TEST(ExtendedAttributes, PathFileAndEntryAgree)
{
    const Testing::TemporaryDirectory temporary;
    const YPath path(temporary.Write("file", "x").c_str());
    if (setxattr(path.CStr(), "user.probe", "p", 1, 0) != 0)
        GTEST_SKIP() << "the file system of the temporary directory keeps no extended attributes";
    const YDirectory directory = YDirectory::Open(YPath(temporary.Path().c_str()));
    const Krt::Util::YUnxHandle file = directory.OpenFile("file");
    const std::string large(3000, 'v');
    AddExtendedAttribute(path, "user.a", "one\0two", 7, 0);
    YEntry(file).AddExtendedAttribute("user.b", "", 0, 0);
    YEntry(directory, "file").AddExtendedAttribute("user.c", "old", 3, 0);
    YEntry(directory, "file").AddExtendedAttribute("user.c", large.data(), 3000, 0);

    for (const auto& map : {GetExtendedAttributeMap(path), YEntry(file).GetExtendedAttributeMap(),
                            YEntry(directory, "file").GetExtendedAttributeMap()}) {
        EXPECT_EQ(Text(map.at("user.a")), std::string("one\0two", 7));
        EXPECT_EQ(Text(map.at("user.b")), "");
        EXPECT_EQ(Text(map.at("user.c")), large);
    }
    for (auto list : {ListExtendedAttributes(path), YEntry(file).ListExtendedAttributes(),
                      YEntry(directory, "file").ListExtendedAttributes()}) {
        list.sort();
        list.remove_if([](const YString& name) { return name.Left(5) != "user."; });
        EXPECT_EQ(list, (std::list<YString>{"user.a", "user.b", "user.c", "user.probe"}));
    }

    // A symlink itself cannot have these, and its target must not get them instead.
    std::filesystem::create_symlink("file", temporary / "link");
    EXPECT_RAISES_OS(YEntry(directory, "link").AddExtendedAttribute("user.d", "x", 1, 0),
                     Krt::MessageType::General, EPERM, "AddExtendedAttribute",
                     "Failed to set extended attribute user.d of: link");
    EXPECT_FALSE(GetExtendedAttributeMap(YPath((temporary / "link").c_str())).contains("user.a"));
    EXPECT_FALSE(GetExtendedAttributeMap(path).contains("user.d"));
}

TEST(ExtendedAttributes, GrowingListIsReadAgain)
{
    std::size_t asked = 0;
    const CallHook hook([&](const HookedCall& call) {
        if (call.function == "lgetxattr")
            return CallHook::Give(call, call.attribute);
        // A list that exceeds the first buffer, and then grows each time between size and fetch.
        std::string names;
        for (std::size_t i = 0; i < std::min<std::size_t>(4000, 500 + 700 * asked); ++i)
            names += "user.attribute" + std::to_string(i) + '\0';
        ++asked;
        CallHook::Give(call, names);
    });
    EXPECT_EQ(ListExtendedAttributes(YPath("/x")).size(), 4000u);
    asked = 0;
    EXPECT_EQ(Text(GetExtendedAttributeMap(YPath("/x")).at("user.attribute3999")), "user.attribute3999");
}

TEST(ExtendedAttributes, EmptyListTakesOneCall)
{
    int calls = 0;
    const CallHook hook([&](const HookedCall& call) {
        ++calls;
        CallHook::Give(call, "");
    });
    EXPECT_TRUE(GetExtendedAttributeMap(YPath("/x")).empty());
    EXPECT_EQ(calls, 1);
}

TEST(ExtendedAttributes, SystemErrorsAreRaised)
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
        ExtendedAttributeMap map;
        const CallHook hook([&](const HookedCall& call) {
            const bool isList = call.function == "llistxattr";
            if (const int error = isList ? row.listError : call.attribute == "user.bad" ? row.valueError : 0)
                return CallHook::Fail(error);
            CallHook::Give(call, isList ? std::string("user.bad\0user.good\0", 19) : "good");
        });
        EXPECT_EQ(Testing::OsErrorOf([&] { map = GetExtendedAttributeMap(YPath("/x")); }), row.raised)
            << row.name;
        EXPECT_EQ(map.size(), row.raised == 0 ? 1u : 0u) << row.name;
    }
}

} // namespace
