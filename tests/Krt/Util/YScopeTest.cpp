#include "Krt/Util/YScope.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace Krt::Util {
namespace {

TEST(YScope, FunctionRunsOnce)
{
    int runs = 0;
    {
        YScope atEnd([&] { ++runs; });
    }
    EXPECT_EQ(runs, 1);
    {
        YScope nested([&] {
            ++runs;
            nested.Release();
        });
        nested.Release();
        nested.Release();
    }
    EXPECT_EQ(runs, 2);
    YScope none{boost::function<void()>()};
    none.Release();
}

TEST(YScope, ReleaseRaisesAndDestructorDoesNot)
{
    {
        YScope swallowing([] { throw std::runtime_error("late"); });
    }
    YScope raising([] { throw std::runtime_error("now"); });
    EXPECT_THROW(raising.Release(), std::runtime_error);
    EXPECT_NO_THROW(raising.Release());
}

} // namespace
} // namespace Krt::Util
