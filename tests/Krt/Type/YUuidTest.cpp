#include "Krt/Type/YUuid.h"

#include "testing/OnThreads.h"

#include "Krt/Util/RandomGenerator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

using Krt::Type::YUuid;

TEST(YUuid, TextHasAllBytesInOrder)
{
    const YUuid uuid(
        {0x00, 0x01, 0x0A, 0xB0, 0xCD, 0xEF, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0, 0xFF, 0x7F});
    EXPECT_EQ(uuid.GetString().Bytes(), "00010ab0-cdef-1234-5678-9abcdef0ff7f");
}

TEST(YUuid, RandomIsTwoDrawsOfVersionFour)
{
    std::mt19937_64 twin;
    {
        const auto lock = Krt::Util::LockRandomGenerator();
        twin = Krt::Util::GetRandomGenerator();
    }
    for (int i = 0; i < 64; ++i) {
        const unsigned long long draws[] = {twin(), twin()};
        const YUuid::Bytes bytes = YUuid::Random().GetBytes();
        for (unsigned int at = 0; at < bytes.size(); ++at) {
            const auto drawn = static_cast<unsigned char>(draws[at / 8] >> (8 * (at % 8)));
            const unsigned int expected = at == 8   ? 0x80U + drawn % 0x40U
                                          : at == 6 ? 0x40U + drawn % 0x10U
                                                    : drawn;
            EXPECT_EQ(bytes[at], expected) << at;
        }
    }
}

TEST(YUuid, ConcurrentDrawsDiffer)
{
    std::vector<YUuid::Bytes> drawn(2000, YUuid::Bytes());
    Testing::OnThreads(4, [&](int thread) {
        std::generate_n(&drawn[500U * static_cast<unsigned int>(thread)], 500,
                        [] { return YUuid::Random().GetBytes(); });
    });
    EXPECT_EQ(std::set(drawn.begin(), drawn.end()).size(), drawn.size());
}
