// The number of system calls for each entry of a walk. One more call for each file costs a tenth of its time.
// The number does not depend on the load of the machine.
#include "testing/Capture.h"
#include "testing/SystemCalls.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Tree.h"

#include <gtest/gtest.h>

#include <sys/xattr.h>

namespace {

constexpr unsigned long More = 300;

// Status, open, configuration, extended attributes, close. A directory: status, two looks for a mount,
// configuration, extended attributes; open, two reads of its names, close. A link: its target takes one.
const struct
{
    double calls;
    Testing::TreeEntry entry;
    bool hasAttribute = false;
} Kinds[] = {{5, Testing::File("file", "text")},
             {6, Testing::File("file with an extended attribute", "text"), true},
             {9, Testing::Dir("directory")},
             {4, Testing::Link("link", "target")}};

TEST(CaptureCalls, CallsPerEntryStayFew)
{
    for (const auto& kind : Kinds) {
        const Testing::TemporaryDirectory directory;
        const auto add = [&](const std::string& suffix) {
            bool isAdded = true;
            for (unsigned long i = 0; i < More; ++i) {
                Testing::TreeEntry entry = kind.entry;
                entry.name += suffix + std::to_string(i);
                Testing::MakeTree(directory.Path(), {entry});
                isAdded = isAdded && (!kind.hasAttribute || setxattr((directory / entry.name).c_str(),
                                                                     "user.name", "value", 5, 0) == 0);
            }
            return isAdded;
        };
        const auto count = [&] {
            return Testing::CountSystemCalls([&] { Testing::Capture().Run(directory.Path()); });
        };
        if (!add("few")) {
            std::printf("%s: this file system has none\n", kind.entry.name.c_str());
            continue;
        }
        const auto few = count();
        if (!few)
            GTEST_SKIP() << "this machine lets no process trace another";
        ASSERT_TRUE(add("more"));
        const auto many = count();
        ASSERT_TRUE(many);
        // The rest are calls for memory and for the names of the parent directory.
        const double calls = static_cast<double>(*many - *few) / More;
        EXPECT_LT(calls, kind.calls + 0.3) << kind.entry.name;
        EXPECT_GE(calls, kind.calls) << kind.entry.name << ": if there are fewer calls, update the table";
    }
}

} // namespace
