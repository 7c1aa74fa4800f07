// For tests that use /proc as a mount that every machine has.
#pragma once

#include "Backup/Volume/Unix/Util.h"

#include <gtest/gtest.h>

namespace Testing {

/// Skips its tests if /proc is not a mount point.
class ProcMounted : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!Backup::Volume::IsMountPoint("/proc"))
            GTEST_SKIP() << "/proc is not mounted here";
    }
};

} // namespace Testing
