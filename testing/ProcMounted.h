// For tests that take /proc for a mount: what every machine has mounted below the root.
#pragma once

#include "Backup/Volume/Unix/Util.h"

#include <gtest/gtest.h>

namespace Testing {

/// Skips its tests where /proc is an ordinary directory.
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
