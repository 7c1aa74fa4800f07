// DumpRun: writes a file of a snapshot, or a directory as an archive, to standard output or to a file.
#pragma once

#include "agent/Access/LinkKey.h"
#include "agent/Access/TreeWalk.h"
#include "agent/Dump/Archive.h"
#include "agent/Dump/BlobReader.h"
#include "agent/Dump/DumpTarget.h"
#include "agent/Run/Report.h"

#include <map>
#include <string>

namespace Agent {

class DumpRun
{
public:
    /// All outlive this object. The index is loaded.
    DumpRun(const Repo::Repository& repository, DumpTarget& target, Report& report);

    /// Writes the content of a file. Raises what loading a blob raises.
    void WriteFile(const FoundEntry& file);
    /// Writes all that is below a directory. What can't be read is reported as failed entries. A file whose
    /// content ends early is filled with zeros, and counts as failed.
    void WriteDirectory(const FoundEntry& directory, ArchiveFormat format);

private:
    void Add(Archive& archive, const std::string& path, const Repo::Node& node, ArchiveFormat format);
    void AddContent(Archive& archive, const std::string& path, const Repo::Node& node);
    void ShowProgress(const std::string& path);
    std::uint64_t SizeOf(const Repo::Node& node) const;

    const Repo::Repository& m_repository;
    DumpTarget& m_target;
    Report& m_report;
    BlobReader m_reader;
    std::map<LinkKey, std::string> m_linked; // first path of each file
    unsigned long long m_entries = 0;
    unsigned long long m_bytes = 0;
};

} // namespace Agent
