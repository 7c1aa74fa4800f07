#include "Backup/Core/YGlobal.h"

#include "Backup/Core/OpenSSL.h"
#include "testing/Raises.h"

TEST(YGlobalTest, OneObjectUntilDestroyed)
{
    Backup::YGlobal* const global = Backup::GetGlobal();
    EXPECT_EQ(Backup::GetGlobal(), global);
    EXPECT_EQ(global->GetMacros().Expand("${product}"), "${product}") << "before Initialize";
    global->Initialize();
    EXPECT_EQ(global->GetMacros().Expand("${product}|${mfg}|${mfgRegistry}|${serviceName}|${mfgShort}"),
              "Kestrelon Backup Agent|Kestrelon Networks, Inc.|Kestrelon Networks, Inc.|kbagent|Kestrelon");

    Backup::DestroyGlobal();
    Backup::DestroyGlobal();
    EXPECT_EQ(Backup::GetGlobal()->GetMacros().Expand("${product}"), "${product}") << "a fresh object";
    Backup::DestroyGlobal();
}

TEST(RandomBytesTest, ResultHasRequestedSize)
{
    auto first = Backup::OpenSSL::RandomBytes(32);
    auto second = Backup::OpenSSL::RandomBytes(32);
    ASSERT_EQ(first.Size(), 32U);
    EXPECT_NE(std::memcmp(static_cast<unsigned char*>(first), static_cast<unsigned char*>(second), 32), 0);
    EXPECT_EQ(Backup::OpenSSL::RandomBytes(0).Size(), 0U);
    EXPECT_RAISES(Backup::OpenSSL::RandomBytes(-1), Krt::ErrorCode::InvalidArgument, "throw_exception",
                  "bad numeric conversion: negative overflow");
}
