// RemoteOptions: how repositories on servers are used, as a command line gives it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Agent::Remote {

/// What is empty or 0 was not given.
struct RemoteOptions
{
    std::string anchorFile;                ///< --cacert
    std::string anchorSource = "--cacert"; ///< the option or variable that names the anchor file
    std::vector<std::string> pins;         ///< --tls-pin: what Http::DigitsOfPin takes
    std::vector<std::string> extended;     ///< --option: KEY=VALUE each
    bool requiresTls = false;              ///< the anchor file or the pins are meant for this server alone
    std::uint64_t uploadLimit = 0;         ///< KiB a second
    std::uint64_t downloadLimit = 0;       ///< KiB a second
};

} // namespace Agent::Remote
