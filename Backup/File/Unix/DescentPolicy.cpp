#include "Backup/File/Unix/DescentPolicy.h"

#include "Backup/Volume/Unix/Util.h"
#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Profile/YProfile.h"
#include "Krt/Thread/YMutex.h"

#include <atomic>
#include <set>

namespace Backup::File {

using Krt::File::YPath;

namespace {

// The mount points that the configuration admits. The set is complete before the flag is set and never
// changes afterwards, so it is read without the lock.
const std::set<YPath>& GetIncludedMountpoints()
{
    static Krt::Thread::YMutex s_mutex;
    static std::atomic<bool> s_includedMountpointsLoaded{false};
    static std::set<YPath> s_includedMountpoints;

    if (s_includedMountpointsLoaded.load())
        return s_includedMountpoints;
    const Krt::Thread::YMutex::YLock lock = s_mutex.Lock();
    if (!s_includedMountpointsLoaded.load()) {
        const YString paths =
            Krt::Profile::OpenSystem()->Get<YString>("configuration", "IncludedMountpoints", YString());
        for (const YString& path : paths.SectionVector(',', true, true))
            s_includedMountpoints.insert(YPath(path));
        s_includedMountpointsLoaded.exchange(true);
    }
    return s_includedMountpoints;
}

} // namespace

bool IsFollowableDirectoryFromKrtAttributes(const YPath& path, unsigned int attributes)
{
    if (attributes == Krt::File::AttributesUnknown || (attributes & Krt::File::AttributeDirectory) == 0)
        return false;
    if (!Volume::IsMountPoint(path))
        return true;
    try {
        if (Volume::DetermineDriveType(Volume::GetVolumeUniquePath(path)) == Volume::DRIVE_CLASS_FIXED)
            return true;
        return GetIncludedMountpoints().contains(path);
    } catch (const Krt::Exception::YError& error) {
        if (Krt::Profile::OpenSystem()->Get<bool>("configuration", "walkIntoUnknownMountPoints", false)) {
            KRT_LOG_FREE(MessageType::General, "Walking into unknown mountpoint: "
                                                   << path
                                                   << " due to [configuration] walkIntoUnknownMountPoints=1");
            return true;
        }
        Krt::YStream text{YString()};
        text << "Error while determining if " << path << " should be decended "
             << "into.  Try setting [configuration] walkIntoUnknownMountPoints=1  Error was: " << error;
        // The policy counts as one of the file primitives, and its errors name their source.
        Krt::Exception::Raise(ExceptionType::General, MessageType::General, ErrorCode::InvalidArgument,
                              __LINE__, "Backup/File/Unix/File.cpp", __func__, text);
    }
}

} // namespace Backup::File
