#include "agent/Restore/RestoreSettings.h"

#include <algorithm>
#include <string_view>

namespace Agent {

namespace {

bool IsBelow(std::string_view path, std::string_view root)
{
    return root == "/" ||
           (path.starts_with(root) && (path.size() == root.size() || path[root.size()] == '/'));
}

} // namespace

Selection RestoreSettings::Select(const std::string& path, bool isDirectory) const
{
    Selection selection{true, isDirectory};
    if (!paths.empty()) {
        selection.isSelected = std::any_of(paths.begin(), paths.end(),
                                           [&](const std::string& root) { return IsBelow(path, root); });
        selection.mayHaveSelected =
            isDirectory && (selection.isSelected ||
                            std::any_of(paths.begin(), paths.end(),
                                        [&](const std::string& root) { return IsBelow(root, path); }));
    }
    if (!includes.IsEmpty()) {
        const Patterns::Result result = includes.Match(path);
        selection.isSelected = selection.isSelected && result.matches;
        selection.mayHaveSelected = selection.mayHaveSelected && result.mayMatchBelow;
    }
    if (!excludes.IsEmpty() && excludes.Match(path).matches)
        selection = {};
    return selection;
}

bool RestoreSettings::SelectsAttribute(const std::string& name) const
{
    const std::string path = "/" + name;
    return (attributes.IsEmpty() || attributes.Match(path).matches) &&
           !excludedAttributes.Match(path).matches;
}

} // namespace Agent
