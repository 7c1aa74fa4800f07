// In what the systems differ as seen by the configuration store.
#pragma once

struct stat;

namespace Krt::Profile {

/// Where the system's configuration stands.
const char* SystemPath();
/// The file's times in nanoseconds since 1970: of its content, and of its status.
long long ModifiedAt(const struct stat& status);
long long ChangedAt(const struct stat& status);

} // namespace Krt::Profile
