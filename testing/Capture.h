// Captures a tree as an agent does, without a store: each entry that the walk selects is opened, and its
// record is built, written as text and dropped. For counting and timing the work of the library.
#pragma once

#include "agent/Walk/Walker.h"

#include "Backup/File/Unix/YFile.h"

#include <string>

namespace Testing {

class Capture : private Agent::IWalkVisitor
{
public:
    /// Walks the tree at `root`, which is selected as a whole. Throws a std::runtime_error for an entry that
    /// fails.
    void Run(const std::string& root);

    unsigned long long GetEntries() const { return m_entries; }
    unsigned long long GetBytesOfText() const { return m_bytes; }

private:
    bool OnSelected(const Agent::WalkedEntry& entry) override;
    void OnExcluded(const Krt::File::YPath&) override {}
    void OnMountNotEntered(const Krt::File::YPath&) override {}
    void OnMountEntered(const Krt::File::YPath&) override {}
    void OnLinkTaken(const Krt::File::YPath&) override {}
    void OnSkipped(const Krt::File::YPath&) override {}
    void OnFailed(const Krt::File::YPath& path, const Krt::YString& reason) override;
    bool IsCancelled() override { return false; }

    // Reads the configuration once, and not for each entry.
    class File : public Backup::File::YFile
    {
    public:
        bool IsXattrDisabled() const override { return m_isXattrDisabled; }

    private:
        const bool m_isXattrDisabled = YFile::IsXattrDisabled();
    };

    File m_file;
    std::string m_text;
    unsigned long long m_entries = 0;
    unsigned long long m_bytes = 0;
};

} // namespace Testing
