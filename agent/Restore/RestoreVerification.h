// RestoreVerification: reads the files of a restore again, and compares them with the snapshot.
#pragma once

#include "agent/Restore/RestoreState.h"

namespace Agent {

/// Verifies the files below the tree that were restored, and reports others than those of the snapshot as
/// failed. What the restore has reported is not reported again. A file that the user may not read, by the
/// mode that was restored, is noted. Directories get the rights of their owner meanwhile, as they do while a
/// restore writes. It is not a dry run. The progress counts what was verified. Raises InvalidState if the
/// user interrupts.
void VerifyRestored(RestoreState& state, const Repo::Id& tree);

} // namespace Agent
