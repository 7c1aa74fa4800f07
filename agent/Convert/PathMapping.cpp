#include "agent/Convert/PathMapping.h"

#include "Krt/JSON/YValue.h"

#include <algorithm>
#include <memory>

namespace Agent {

using Backup::YJobPath;
using Backup::File::JobPathMapper;
using Krt::YString;
using Krt::File::YPath;

namespace {

constexpr std::string_view DevicePrefix = "\\\\?\\";

std::string Replaced(std::string text, char from, char to)
{
    std::replace(text.begin(), text.end(), from, to);
    return text;
}

// The text with backslashes alone; its volume is told by them.
YPath NormalWindowsPath(const YPath& path)
{
    return YPath(YString(Replaced(path.Bytes(), '/', '\\')));
}

YJobPath FromWindowsPath(YJobPath base, const YPath& path, bool isDirectory)
{
    const YPath normal = NormalWindowsPath(path);
    const YPath volume = normal.GetVolume();
    std::string_view rest = normal.Bytes();
    if (!volume.IsEmpty()) {
        base.AppendComponent({volume, YString(), YJobPath::ClassFileSystemContainer, 0});
        rest.remove_prefix(volume.Bytes().size());
    } else if (rest.starts_with(DevicePrefix)) {
        rest.remove_prefix(DevicePrefix.size());
    }
    // The slash in front keeps a name such as D: from being taken for a volume.
    const std::string names = "/" + Replaced(std::string(rest), '\\', '/');
    return YJobPath::FromFilePath(std::move(base), YPath(YString(names)), isDirectory);
}

bool IsWindowsPath(const std::string& text)
{
    return text.starts_with('\\') || !NormalWindowsPath(YPath(YString(text))).GetVolume().IsEmpty();
}

} // namespace

// Mappers are copied for each record, so they share the base.
JobPathMapper MakeUnixMapper(const YJobPath& base)
{
    return [base = std::make_shared<const YJobPath>(base)](const YPath& path, bool isDirectory) {
        return YJobPath::FromFilePath(*base, path, isDirectory);
    };
}

JobPathMapper MakeWindowsMapper(const YJobPath& base)
{
    return [base = std::make_shared<const YJobPath>(base)](const YPath& path, bool isDirectory) {
        return FromWindowsPath(*base, path, isDirectory);
    };
}

std::vector<YJobPath> JobPathsOf(const std::string& text)
{
    if (text.starts_with('{'))
        return {Krt::JSON::YValue::Parse(text)->Convert<YJobPath>()};
    const YPath path{YString(text)};
    if (IsWindowsPath(text))
        return {FromWindowsPath({}, path, true), FromWindowsPath({}, path, false)};
    if (text.starts_with('/'))
        return {YJobPath::FromFilePath({}, path, true), YJobPath::FromFilePath({}, path, false)};
    return {YJobPath(path)};
}

} // namespace Agent
