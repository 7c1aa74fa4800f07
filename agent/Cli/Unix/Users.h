// In what the systems differ as seen by the guard of files.
#pragma once

namespace Agent {

/// Whether other users than this one can act where this process runs. Not in a user namespace that knows one
/// alone: what root may do there, its maker may do anyway.
bool AreThereOtherUsers();

} // namespace Agent
