#include "agent/Restore/TargetCleaner.h"

#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"

#include <optional>
#include <vector>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;

namespace {

std::vector<YString> NamesIn(const YDirectory& directory)
{
    std::vector<YString> names;
    directory.VisitEntries([&names](const Krt::File::DirectoryEntry& entry) {
        names.push_back(entry.name);
        return true;
    });
    return names;
}

} // namespace

void TargetCleaner::Clean(const YDirectory* root, const TargetLocation& location, const std::string& path,
                          const std::unordered_set<std::string>& kept) const
{
    if (root == nullptr)
        return;
    if (location.empty()) {
        CleanOpened(*root, path, kept);
        return;
    }
    std::optional<YDirectory> directory;
    try {
        directory = root->OpenBelow(location);
    } catch (const Krt::Exception::YError&) {
        return; // it does not exist, or is not a directory
    }
    CleanOpened(*directory, path, kept);
}

void TargetCleaner::CleanOpened(const YDirectory& directory, const std::string& path,
                                const std::unordered_set<std::string>& kept) const
{
    for (const YString& name : NamesIn(directory)) {
        if (!kept.contains(name.Bytes()))
            Remove(directory, name, path + "/" + name.Bytes());
    }
}

bool TargetCleaner::Remove(const YDirectory& parent, const YString& name, const std::string& path) const
{
    return RemoveEntry(parent, name, path, 0);
}

bool TargetCleaner::RemoveEntry(const YDirectory& parent, const YString& name, const std::string& path,
                                unsigned int depth) const
{
    RaiseIfInterrupted();
    try {
        const struct stat status = parent.Stat(name);
        const bool isDirectory = S_ISDIR(status.st_mode);
        const Selection selection = m_settings.Select(path, isDirectory);
        if (isDirectory && (selection.isSelected || selection.mayHaveSelected)) {
            KRT_RAISE_UNLESS(status.st_dev == parent.Stat().st_dev, Krt::ErrorCode::InvalidState,
                             "Not removed, since another file system is mounted there");
            KRT_RAISE_UNLESS(depth < DepthLimit, Krt::ErrorCode::InvalidState,
                             "Not removed, since it is more than " << DepthLimit << " levels deep");
            if (!RemoveBelow(parent, name, path, depth))
                return false;
        }
        if (!selection.isSelected)
            return false;
        if (!m_settings.isDryRun && isDirectory)
            parent.RemoveDirectory(name);
        else if (!m_settings.isDryRun)
            parent.RemoveFile(name);
        m_onRemoved(path);
        return true;
    } catch (const Krt::Exception::YError& error) {
        RaiseIfInterrupted();
        m_report.EntryFailed(YString(std::string_view(path)), ReasonOf(error));
        return false;
    }
}

bool TargetCleaner::RemoveBelow(const YDirectory& parent, const YString& name, const std::string& path,
                                unsigned int depth) const
{
    const YDirectory directory = parent.OpenDirectory(name);
    bool isEmpty = true;
    for (const YString& below : NamesIn(directory))
        isEmpty = RemoveEntry(directory, below, path + "/" + below.Bytes(), depth + 1) && isEmpty;
    return isEmpty;
}

} // namespace Agent
