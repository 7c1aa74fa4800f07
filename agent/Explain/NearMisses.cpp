#include "agent/Explain/NearMisses.h"

#include <optional>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionPathDescriptor;
using Krt::YString;
using Krt::File::YPath;
using Krt::Match::Descriptor;

namespace {

constexpr std::size_t MostNearMisses = 8;

// Returns the reason why an include does not match the name, which it `reaches` or not.
std::optional<NearMiss::Cause> CauseOf(const YSelectionDescriptor& rule, const YString& name, bool reaches)
{
    const Descriptor& names = rule.GetDescriptor();
    const bool matches = Krt::Match::Check(name, names);
    if (!reaches)
        return matches ? std::optional(NearMiss::Cause::NotSoDeep) : std::nullopt;
    if (matches)
        return std::nullopt;
    const Descriptor anyCase(names.GetMatchType(), names.GetPattern(), false);
    return Krt::Match::Check(name, anyCase) ? NearMiss::Cause::OtherCase : NearMiss::Cause::OtherNames;
}

} // namespace

NearMisses FindNearMisses(const Backup::File::YSelectionManager& rules, const YPath& path)
{
    NearMisses misses;
    const YString name = YPath::GetFileFromPath(path, "/");
    const YPath parent = path.GetParent();
    YPath directory = path;
    for (bool isRoot = false; !isRoot; directory = directory.GetParent()) {
        isRoot = directory == "/";
        rules.VisitPathsAndDescriptors(
            YSelectionDescriptor::Include, directory,
            [&](const YPath& rulePath, const YSelectionDescriptor& rule) {
                // If the directory has no rules, these are of one above, which has its own turn.
                if (rulePath != directory)
                    return true;
                const auto cause = directory == path
                                       ? std::optional(NearMiss::Cause::OnlyEntries)
                                       : CauseOf(rule, name, rule.IsRecursive() || directory == parent);
                if (cause && misses.shown.size() < MostNearMisses)
                    misses.shown.push_back({YSelectionPathDescriptor(rulePath, rule), *cause});
                else
                    misses.more += cause ? 1 : 0;
                return false;
            },
            false);
    }
    return misses;
}

} // namespace Agent
