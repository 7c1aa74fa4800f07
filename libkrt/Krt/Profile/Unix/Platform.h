#pragma once

/// @file
/// The location of the configuration on each platform.

namespace Krt::Profile {

/// The path of the system's configuration.
const char* SystemPath();

} // namespace Krt::Profile
