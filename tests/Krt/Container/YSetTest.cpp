#include "Krt/Container/YSet.h"

#include <gtest/gtest.h>

namespace Krt::Container {
namespace {

TEST(YSet, ChangeFiresSignal)
{
    YSet<int> set;
    int fired = 0;
    Signal::YSlot slot = set.OnChanged().Connect([&] {
        set.Size(); // needs the lock that a change holds
        ++fired;
    });
    const auto changes = [&](auto change) {
        const int firedBefore = fired;
        change();
        EXPECT_EQ(fired, firedBefore + 1);
    };
    changes([&] { set.Clear(); });
    changes([&] { EXPECT_TRUE(set.Insert(2)); });
    changes([&] { EXPECT_TRUE(set.Insert(1)); });
    changes([&] { EXPECT_FALSE(set.Insert(2)); });
    EXPECT_EQ(set.Values(), (std::set<int>{1, 2}));
    changes([&] { set.Clear(); });
    EXPECT_FALSE(set.Contains(2));
}

} // namespace
} // namespace Krt::Container
