// rclone's server of restic's REST API, for a directory, on a free port of the loopback interface.
#pragma once

#include <string>

namespace Testing {

class RcloneServer
{
public:
    explicit RcloneServer(const std::string& directory);
    ~RcloneServer();
    RcloneServer(const RcloneServer&) = delete;
    RcloneServer& operator=(const RcloneServer&) = delete;

    /// "127.0.0.1:PORT"; empty if the program is missing or could not start.
    const std::string& Place() const { return m_place; }

private:
    int m_process = -1;
    std::string m_place;
};

} // namespace Testing
