#include "agent/Repository/Backend.h"

namespace Agent::Repo {

namespace {

const char* DirectoryOf(FileKind kind)
{
    switch (kind) {
    case FileKind::Config:
        return "";
    case FileKind::Key:
        return "keys";
    case FileKind::Lock:
        return "locks";
    case FileKind::Snapshot:
        return "snapshots";
    case FileKind::Index:
        return "index";
    case FileKind::Pack:
        return "data";
    }
    return "";
}

} // namespace

std::string FileName::Path() const
{
    if (kind == FileKind::Config)
        return "config";
    const std::string name = id.ToHex();
    std::string path = DirectoryOf(kind);
    path += '/';
    if (kind == FileKind::Pack)
        path.append(name, 0, 2).append("/");
    return path + name;
}

Krt::YString FileName::Prefix() const
{
    return Krt::YString(std::string_view(Path() + ": "));
}

} // namespace Agent::Repo
