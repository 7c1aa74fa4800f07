// A separator and two paths. The operations of paths are compared with models that work on plain text.
#include "fuzz/Input.h"
#include "fuzz/TextModel.h"

#include "Krt/File/YPath.h"

#include <cctype>

namespace {

using Fuzz::Expect;
using Krt::YString;
using Krt::File::YPath;
namespace Model = Fuzz::Model;

std::string RemoveSep(std::string path, char separator)
{
    if (path == std::string(1, separator))
        return path;
    while (path.ends_with(separator))
        path.pop_back();
    return path;
}

std::string AppendSep(const std::string& path, char separator)
{
    return path.ends_with(separator) ? path : path + separator;
}

std::string Append(const std::string& first, std::string second, char separator)
{
    while (second.starts_with(separator))
        second.erase(0, 1);
    return RemoveSep(AppendSep(first, separator) + second, separator);
}

// Names are bytes here: a lead byte at the end of a directory's name does not take the separator along.
std::string FileOf(const std::string& path, char separator)
{
    return path.substr(path.rfind(separator) + 1);
}

std::string RemoveFile(std::string path, char separator)
{
    std::string file;
    do {
        if (file == ".")
            path = RemoveSep(path, separator);
        file = FileOf(path, separator);
        path.resize(path.size() - file.size());
    } while (file == ".");
    return RemoveSep(path, separator);
}

std::string Parent(const std::string& path, char separator)
{
    if (path == std::string(1, separator))
        return path;
    const std::string rest = RemoveFile(RemoveSep(path, separator), separator);
    return path.ends_with(separator) ? rest : RemoveSep(rest, separator);
}

std::string Volume(const std::string& path)
{
    const std::string p = AppendSep(path, '/');
    const auto isLetter = [&](std::size_t at) {
        return std::isalpha(static_cast<unsigned char>(p[at])) != 0;
    };
    if (Model::Length(p) > 1 && p[1] == ':' && isLetter(0))
        return Model::Mid(p, 0, 2);
    std::string upper = p;
    for (char& byte : upper)
        byte = Krt::String::ToUpper(byte);
    std::string prefix;
    for (const YString& candidate : YPath::s_volumePrefixes) {
        if (candidate.Bytes() <= upper)
            prefix = candidate.Bytes();
    }
    if (prefix.empty() || !upper.starts_with(prefix))
        return {};
    const unsigned int end = Model::Find(p, "\\", Model::Length(prefix), false);
    const auto at = [&](unsigned int index) {
        return Model::Locate(p, index);
    };
    if (prefix.ends_with('\\') && (end == Model::NotFound || end <= 2 || p[at(end - 1)] != ':' ||
                                   !isLetter(at(end - 2)) || p[at(end - 3)] != '\\'))
        return {};
    return Model::Mid(p, 0, end);
}

std::string RemoveVolume(const std::string& path)
{
    const std::string volume = Volume(path);
    if (path == volume || volume.empty())
        return path == volume ? std::string() : path;
    unsigned int count = 0;
    return Model::Replaced(path, AppendSep(volume, '/'), "", 0, 1, false, count);
}

std::vector<YString> Components(const std::string& path)
{
    const std::string volume = Volume(path);
    std::vector<YString> components;
    if (const std::string first = RemoveSep(volume, '/'); !first.empty())
        components.push_back(YString(std::string_view(first)));
    std::string name;
    for (std::size_t at = volume.size(); at <= path.size(); ++at) {
        if (at < path.size() && path[at] != '/') {
            name += path[at];
            continue;
        }
        if (!name.empty() && name != ".")
            components.push_back(YString(std::string_view(name)));
        name.clear();
    }
    return components;
}

void CheckText(const std::string& first, const std::string& second, char separator)
{
    const YString path(first.c_str()), other(second.c_str());
    const char* const sep = &separator;
    const auto expect = [](const YString& result, const std::string& model, const char* what) {
        Expect(result.Bytes() == model, what);
    };
    expect(YPath::RemovePathSep(path, sep), RemoveSep(first, separator), "RemovePathSep");
    expect(YPath::AppendPaths(path, other, sep), Append(first, second, separator), "AppendPaths");
    expect(YPath::GetFileFromPath(path, sep), FileOf(first, separator), "GetFileFromPath");
    expect(YPath::RemoveFileFromPath(path, sep), RemoveFile(first, separator), "RemoveFileFromPath");
    expect(YPath::GetParentFromPath(path, sep), Parent(first, separator), "GetParentFromPath");
    expect(YPath::RemoveLeadingPath(path, other, sep),
           first.starts_with(second) ? first.substr(second.size()) : first, "RemoveLeadingPath");
    expect(YPath::GetVolumeFromPath(path), Volume(first), "GetVolumeFromPath");
    expect(YPath::RemoveVolumeFromPath(path), RemoveVolume(first), "RemoveVolumeFromPath");
    Expect(YPath::SplitRelativePath(path) == Components(first), "SplitRelativePath");
}

void CheckMembers(const std::string& first, const std::string& second)
{
    const YPath path(first.c_str()), other(second.c_str());
    const std::string text = RemoveSep(first, '/'), otherText = RemoveSep(second, '/');
    const auto expect = [](const YPath& result, const std::string& model, const char* what) {
        Expect(result.Bytes() == RemoveSep(model, '/'), what);
    };
    expect(path, text, "the text of a path");
    Expect(path.AsUnixPath(true).Bytes() == AppendSep(text, '/'), "AsUnixPath");
    expect(path.GetVolume(), Volume(AppendSep(text, '/')), "GetVolume");
    expect(path.RemoveVolume(), RemoveVolume(AppendSep(text, '/')), "RemoveVolume");
    expect(path.Append(other), Append(text, otherText, '/'), "Append");
    expect(path.GetParent(), Parent(text, '/'), "GetParent");
    expect(path.RemoveFile(), RemoveFile(text, '/'), "RemoveFile");
    expect(path.AddLeadingSep(), text.starts_with('/') ? text : '/' + text, "AddLeadingSep");
    Expect(path.PopulateComponents() == Components(text), "PopulateComponents");
    const bool below = AppendSep(text, '/').starts_with(AppendSep(otherText, '/'));
    Expect(path.IsChildOf(other, true) == below, "IsChildOf, or equal");
    Expect(path.IsChildOf(other, false) == (below && AppendSep(text, '/') != AppendSep(otherText, '/')),
           "IsChildOf");
}

// A path that was assigned keeps no cached part of its old text.
void CheckAssignment(const YPath& first, const YPath& second)
{
    const auto parts = [](const YPath& path) {
        return std::pair(path.AsUnixPath(true), path.PopulateComponents());
    };
    YPath path(first);
    parts(path);
    path = second;
    Expect(parts(path) == parts(YPath(second.CStr())), "the parts of a path that was assigned to");
    const YPath moved(std::move(path));
    Expect(parts(moved) == parts(second) && parts(path) == parts(YPath()),
           "the parts of a path that was moved");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > 512) // the model takes the square of it
        return 0;
    Fuzz::Input input(data, size);
    const char separator = static_cast<char>(std::max<int>(input.Byte(), 1));
    std::string first = input.Text(), second = input.Text();
    std::erase(first, '\0');
    std::erase(second, '\0');
    CheckText(first, second, separator);
    CheckMembers(first, second);
    CheckAssignment(first.c_str(), second.c_str());
    return 0;
}
