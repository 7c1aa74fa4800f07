// Captures what the library logs: opens the process's log on a temporary file with the given channels
// enabled, and finally closes it and disables all channels.
#pragma once

#include "testing/TemporaryDirectory.h"

#include <string>
#include <vector>

namespace Testing {

class LogCapture
{
public:
    explicit LogCapture(const std::vector<std::string>& channels);
    ~LogCapture();

    /// The messages so far without the logger's time and level: thread id, name, ": ", text.
    std::vector<std::string> Lines() const;
    /// The messages without the thread id, as in "YFile: Read 3 bytes ...".
    std::vector<std::string> Texts() const;
    /// The texts concatenated, each with a trailing line feed.
    std::string Text() const;

private:
    TemporaryDirectory m_directory;
};

} // namespace Testing
