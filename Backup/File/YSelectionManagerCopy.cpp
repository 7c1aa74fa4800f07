// The selection tree's way into a document and back, and from one tree into another.
// Errors of all sources of YSelectionManager report one path.
#define KRT_SOURCE_FILE "Backup/File/YSelectionManager.cpp"

#include "Backup/File/YSelectionManager.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YValue.h"

namespace Backup::File {

using Krt::File::YPath;
using Krt::JSON::YArray;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using Krt::Time::YDuration;

YObject YSelectionManager::ToJSON(const YPath& start) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    const auto rulesOfType = [&](SelectionType type) {
        // Sorted by path bytes, which is not the order of the walk.
        std::set<std::pair<YString, YSelectionDescriptor>> rules;
        VisitPathsAndDescriptors(
            type, start,
            [&](const YPath& path, const YSelectionDescriptor& rule) {
                rules.emplace(path, rule);
                return false;
            },
            true);
        YArray array;
        array.reserve(rules.size());
        for (const auto& [path, rule] : rules) {
            YObject element;
            element.Set<YString>("path", path);
            element.Set<YObject>("descriptor", rule.ToJSON());
            array.push_back(boost::make_shared<YValue>(YValue::FromObject(std::move(element))));
        }
        return array;
    };
    YObject json;
    json.Set<YArray>("includes", rulesOfType(SelectionType::Include));
    json.Set<YArray>("excludes", rulesOfType(SelectionType::Exclude));
    return json;
}

void YSelectionManager::FromJSON(const YObject& json)
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    Clear();
    for (const char* key : {"includes", "excludes"}) {
        for (const auto& element : json.Get<YArray>(key, MessageType::Runtime)) {
            const YObject& entry = element->AsObject();
            const YString& path = entry.Get<YString>("path", MessageType::Runtime);
            YSelectionDescriptor rule;
            rule.FromJSON(entry.Get<YObject>("descriptor", MessageType::Runtime));
            Add(YPath(path), rule);
        }
    }
}

void YSelectionManager::CopyDescriptorsFromPath(const YSelectionManager& source, const YPath& sourcePath,
                                                const YPath& destinationPath)
{
    CopyDescriptorsFromPathInternal(source, sourcePath, destinationPath, true);
}

void YSelectionManager::CopyOnlyIncludesFromPath(const YSelectionManager& source, const YPath& sourcePath,
                                                 const YPath& destinationPath)
{
    CopyDescriptorsFromPathInternal(source, sourcePath, destinationPath, false);
}

void YSelectionManager::CopyDescriptorsFromPathInternal(const YSelectionManager& source,
                                                        const YPath& sourcePath, const YPath& destinationPath,
                                                        bool copyExcludes)
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    const auto sourceLock = source.m_lock.ReadLock(YDuration::Zero());
    if (&source == this)
        KRT_RAISE(ErrorCode::InvalidState, "Source and destination selection manager may not be the same.");
    if (destinationPath.IsChildOf(sourcePath, false))
        KRT_RAISE(ErrorCode::InvalidArgument, "Cannot recursively copy descriptors from parent to child");
    const YPath sourceParent = sourcePath.GetParent();
    source.VisitRulesAbove(sourcePath, [&](const YPath& place, const YSelectionDescriptor& rule) {
        if (copyExcludes || !rule.IsExclude())
            AddCopyFromAbove(rule, place == sourceParent, sourcePath, destinationPath);
        return false;
    });
    source.VisitPathsAndDescriptors(
        sourcePath,
        [&](const YPath& place, const YSelectionDescriptor& rule) {
            // A walk from a path without a node began above it.
            if ((copyExcludes || !rule.IsExclude()) && place.IsChildOf(sourcePath, true))
                Add(destinationPath.Append(place.RemoveLeading(sourcePath)), rule);
            return false;
        },
        true);
}

void YSelectionManager::AddCopyFromAbove(const YSelectionDescriptor& rule, bool atParent,
                                         const YPath& sourcePath, const YPath& destinationPath)
{
    // A recursive rule goes along, but what is explicit about it is said about its own place.
    if (rule.IsRecursive()) {
        YSelectionDescriptor copy = rule;
        copy.SetExplicitSelection(false);
        Add(destinationPath, copy);
    } else if (!atParent) {
        return;
    }
    // A rule that covers the source path itself turns into one that names the destination path.
    if (!Krt::Match::Check(YPath::GetFileFromPath(sourcePath, "/"), rule.GetDescriptor()))
        return;
    const Krt::Match::ExactDescriptor name(YPath::GetFileFromPath(destinationPath, "/"),
                                           rule.GetDescriptor().IsCaseSensitive());
    YSelectionPathDescriptor named(destinationPath.RemoveFile(), name, RecursionType::NonRecursive,
                                   rule.GetSelectionType(), rule.GetReportExclude());
    if (atParent && !rule.IsRecursive() && rule.GetExplicitSelection())
        named.SetExplicitSelection(true);
    Add(named);
}

} // namespace Backup::File
