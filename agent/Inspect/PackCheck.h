// The check of the content of a pack: its id, its header, and each of its blobs.
#pragma once

#include "agent/Inspect/CheckState.h"

namespace Agent {

/// Reads a pack of the index in steps of a few MiB, and reports what is wrong to the state. What is damaged
/// is read again before. `size` is the size of the file in bytes. Returns false if a part of the pack can't
/// be read for a reason that may be outside of it, as RepositoryError::IsOfLocation says. Any thread.
bool CheckPackContent(CheckState& state, std::uint32_t pack, std::uint64_t size);

} // namespace Agent
