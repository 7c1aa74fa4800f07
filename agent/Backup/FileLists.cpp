#include "agent/Backup/FileLists.h"

#include "agent/Access/TextFile.h"
#include "agent/Walk/NameList.h"
#include "agent/Walk/Patterns.h"

#include "Krt/Exception/Raise.h"

#include <sys/stat.h>

#include <algorithm>
#include <string_view>

namespace Agent {

namespace {

bool HasWildcard(std::string_view text)
{
    return text.find_first_of("*?[\\") != text.npos;
}

bool Exists(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

// Adds the paths of the directory's entries that match; none if it is not a directory or can't be read.
void AddMatches(const std::string& directory, std::string_view pattern, std::vector<std::string>& paths)
{
    try {
        const std::string_view opened = directory.empty() ? "." : std::string_view(directory);
        const NameList names(Krt::File::YDirectory::OpenFollowing(Krt::File::YPath(Krt::YString(opened))));
        for (std::size_t i = 0; i < names.Size(); ++i) {
            if (MatchesNamePattern(pattern, names.NameAt(i)))
                paths.push_back(directory + std::string(names.NameAt(i)));
        }
    } catch (const Krt::Exception::YError&) {
        return;
    }
}

// Calls `visit` with each part of the text that ends with `end`, or at the end of the text.
template <class Visit>
void VisitParts(std::string_view text, char end, const Visit& visit)
{
    while (!text.empty()) {
        const std::size_t size = std::min(text.find(end), text.size());
        visit(text.substr(0, size));
        text.remove_prefix(std::min(size + 1, text.size()));
    }
}

} // namespace

std::vector<std::string> ExpandPath(const std::string& pattern, const std::string& place)
{
    if (!HasWildcard(pattern))
        return {pattern};
    // What precedes the part of the pattern that is being expanded, with a trailing slash.
    std::vector<std::string> paths{""};
    for (std::size_t begin = 0; begin < pattern.size();) {
        const std::size_t slash = std::min(pattern.find('/', begin), pattern.size());
        const std::string name = pattern.substr(begin, slash - begin);
        KRT_RAISE_UNLESS(IsNamePattern(name), Krt::ErrorCode::InvalidArgument,
                         place.c_str() << "Not a pattern: '" << pattern.c_str() << "'");
        std::vector<std::string> longer;
        for (const std::string& path : paths) {
            if (HasWildcard(name))
                AddMatches(path, name, longer);
            else
                longer.push_back(path + name);
        }
        if (slash < pattern.size()) {
            for (std::string& path : longer)
                path += '/';
        }
        paths = std::move(longer);
        begin = slash + 1;
    }
    std::erase_if(paths, [](const std::string& path) { return !Exists(path); });
    return paths;
}

std::vector<std::string> PathsOf(const FileLists& lists,
                                 const std::function<void(const std::string& pattern)>& onNoMatch)
{
    constexpr std::string_view White = " \t\r\v\f";
    std::vector<std::string> paths;
    for (const std::string& file : lists.patterns) {
        std::size_t number = 0;
        VisitParts(ReadListFile(file), '\n', [&](std::string_view line) {
            ++number;
            line.remove_prefix(std::min(line.find_first_not_of(White), line.size()));
            line = line.substr(0, line.find_last_not_of(White) + 1);
            if (line.empty() || line.starts_with('#'))
                return;
            const std::string place = file + ":" + std::to_string(number) + ": ";
            const std::vector<std::string> expanded = ExpandPath(std::string(line), place);
            if (expanded.empty())
                onNoMatch(std::string(line));
            paths.insert(paths.end(), expanded.begin(), expanded.end());
        });
    }
    for (const std::string& file : lists.verbatim) {
        VisitParts(ReadListFile(file), '\n', [&](std::string_view line) {
            if (line.ends_with('\r'))
                line.remove_suffix(1);
            if (!line.empty())
                paths.emplace_back(line);
        });
    }
    for (const std::string& file : lists.raw) {
        const Repo::Bytes bytes = ReadListBytes(file);
        KRT_RAISE_UNLESS(bytes.empty() || bytes.back() == 0, Krt::ErrorCode::InvalidArgument,
                         "The last path of the list is not followed by a zero byte: " << file.c_str());
        VisitParts(Repo::AsText(bytes), '\0', [&](std::string_view path) {
            KRT_RAISE_UNLESS(!path.empty(), Krt::ErrorCode::InvalidArgument,
                             "The list contains an empty path: " << file.c_str());
            paths.emplace_back(path);
        });
    }
    return paths;
}

} // namespace Agent
