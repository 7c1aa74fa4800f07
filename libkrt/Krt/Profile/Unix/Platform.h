// In what the systems differ as seen by the configuration store.
#pragma once

namespace Krt::Profile {

/// Where the system's configuration stands.
const char* SystemPath();

} // namespace Krt::Profile
