// makedev, major and minor, whose header every system chooses itself.
#pragma once

#ifdef __APPLE__
#include <sys/types.h>
#else
#include <sys/sysmacros.h>
#endif
