#include "testing/Capture.h"

#include "agent/Walk/Roots.h"

#include "Backup/File/YUnixFileMetadata.h"

#include <stdexcept>

namespace Testing {

using Krt::File::YPath;

void Capture::Run(const std::string& root)
{
    Agent::Job job = Agent::LoadJob("", {root});
    Agent::Walker(job.rules, std::move(job.roots), *this).Run();
}

bool Capture::OnSelected(const Agent::WalkedEntry& entry)
{
    m_file.OpenEntry(entry.parent, entry.name, entry.path);
    bool followable = false;
    const auto metadata =
        Backup::File::YMetadataBase::ConstructFromFile(m_file, [&](YPath path, bool mayDescend) {
            followable = mayDescend;
            return Backup::YJobPath::FromFilePath(Backup::YJobPath(), std::move(path), mayDescend);
        });
    m_text.clear();
    metadata->StringifyTo(m_text);
    m_file.Close();
    ++m_entries;
    m_bytes += m_text.size();
    return followable;
}

void Capture::OnFailed(const YPath& path, const Krt::YString& reason)
{
    throw std::runtime_error(path.Bytes() + ": " + reason.Bytes());
}

} // namespace Testing
