// The lock by which a run shows that it is alive: a file that it holds locked. The system lets go of it when
// the process ends, however it ends.
#pragma once

#include "Krt/File/YDirectory.h"

namespace Agent {

/// Makes the file and locks it. Empty if somebody else took it for abandoned meanwhile: try another name.
Krt::Util::YUnxHandle CreateRunLock(const Krt::File::YDirectory& directory, const Krt::YString& name);

enum class RunState
{
    Alive,
    Abandoned, ///< the lock is now held by the caller
    Gone       ///< there is no such file
};
/// A file that can't be looked at counts as held by the living.
RunState TakeRunLock(const Krt::File::YDirectory& directory, const Krt::YString& name,
                     Krt::Util::YUnxHandle& lock);

} // namespace Agent
