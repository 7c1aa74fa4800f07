// Job paths as words for tests, and a mapper that records its calls.
#pragma once

#include "Backup/File/YMetadataBase.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Testing {

/// Returns a job path of (class, name) components.
inline Backup::YJobPath JobPath(const std::vector<std::pair<unsigned int, std::string>>& components)
{
    Backup::YJobPath path;
    for (const auto& [classId, name] : components)
        path.AppendComponent({name.c_str(), "", classId, 0});
    return path;
}

/// Maps a path to the job path of its components below "job", and records the calls as "path:0" or "path:1".
class RecordingMapper
{
public:
    operator Backup::File::JobPathMapper() const
    {
        return [calls = m_calls](const Krt::File::YPath& path, bool followable) {
            calls->push_back(path.Bytes() + (followable ? ":1" : ":0"));
            return Backup::YJobPath::FromFilePath(Backup::YJobPath("job"), path, followable);
        };
    }
    const std::vector<std::string>& Calls() const { return *m_calls; }

private:
    std::shared_ptr<std::vector<std::string>> m_calls = std::make_shared<std::vector<std::string>>();
};

} // namespace Testing
