#include "testing/Tree.h"

#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace Testing {

namespace fs = std::filesystem;

namespace {

void MakeEntry(const std::string& root, const TreeEntry& entry)
{
    const std::string path = root + "/" + entry.name;
    switch (entry.kind) {
    case TreeEntry::Directory:
        ASSERT_EQ(mkdir(path.c_str(), 0700), 0) << path;
        break;
    case TreeEntry::File:
        std::ofstream(path, std::ios::binary) << entry.text;
        break;
    case TreeEntry::SymbolicLink:
        ASSERT_EQ(symlink(entry.text.c_str(), path.c_str()), 0) << path;
        break;
    case TreeEntry::HardLink:
        ASSERT_EQ(linkat(AT_FDCWD, (root + "/" + entry.text).c_str(), AT_FDCWD, path.c_str(), 0), 0) << path;
        break;
    case TreeEntry::Fifo:
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0) << path;
        break;
    case TreeEntry::Socket:
        ASSERT_EQ(mknod(path.c_str(), S_IFSOCK | 0600, 0), 0) << path;
        break;
    }
}

void FinishEntry(const std::string& root, const TreeEntry& entry)
{
    if (entry.kind == TreeEntry::HardLink)
        return;
    const std::string path = root + "/" + entry.name;
    if (entry.kind != TreeEntry::SymbolicLink) {
        ASSERT_EQ(chmod(path.c_str(), entry.mode), 0) << path;
    }
    const timespec times[2] = {{static_cast<time_t>(entry.time), 0}, {static_cast<time_t>(entry.time), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

std::string AttributesOf(const std::string& path)
{
    std::vector<char> names(65536);
    const ssize_t size = llistxattr(path.c_str(), names.data(), names.size());
    std::set<std::string> lines;
    for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(std::strlen(&names[at])) + 1) {
        std::string value(65536, '\0');
        const ssize_t length = lgetxattr(path.c_str(), &names[at], value.data(), value.size());
        value.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        std::ostringstream line;
        line << " " << std::quoted(&names[at]) << "=" << std::quoted(value);
        lines.insert(line.str());
    }
    std::string text;
    for (const std::string& line : lines)
        text += line;
    return text;
}

std::string DescribeEntry(const std::string& path, const std::string& name, const TreeView& view)
{
    const struct stat status = StatusOf(path);
    std::ostringstream line;
    line << std::quoted(name) << " " << std::oct << status.st_mode << std::dec;
    if (view.owners)
        line << " " << status.st_uid << ":" << status.st_gid;
    line << " t" << status.st_mtime;
    if (view.identity)
        line << "." << status.st_mtim.tv_nsec << " i" << status.st_ino;
    if (view.links && !S_ISDIR(status.st_mode))
        line << " n" << status.st_nlink;
    if (!S_ISDIR(status.st_mode))
        line << " s" << status.st_size;
    if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode))
        line << " d" << status.st_rdev;
    if (S_ISLNK(status.st_mode))
        line << " -> " << std::quoted(fs::read_symlink(path).string());
    else if (S_ISREG(status.st_mode) && status.st_size < (64 << 20) && access(path.c_str(), R_OK) == 0)
        line << " #" << std::hash<std::string>()(ReadFile(path));
    if (view.attributes)
        line << AttributesOf(path);
    line << "\n";
    return line.str();
}

} // namespace

void MakeTree(const std::string& root, const std::vector<TreeEntry>& entries)
{
    for (const TreeEntry& entry : entries)
        MakeEntry(root, entry);
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry)
        FinishEntry(root, *entry);
}

std::string DescribeTree(const std::string& root, const TreeView& view)
{
    std::vector<std::string> lines;
    const auto options = fs::directory_options::skip_permission_denied;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root, options))
        lines.push_back(
            DescribeEntry(entry.path().string(), entry.path().string().substr(root.size()), view));
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string& line : lines)
        text += line;
    return text;
}

std::vector<TreeEntry> EveryKindOfEntry()
{
    const long long before1970 = -86400 * 365;
    const long long after2038 = 4102444800;
    std::vector<TreeEntry> entries = {
        Dir("dir"),
        File("dir/empty", ""),
        File("dir/text", "some text\n"),
        File("dir/zeros", std::string(300000, '\0')),
        File("dir/hole in the middle", std::string(200000, '\0') + "x" + std::string(200000, '\0')),
        File("line\nbreak", "1"),
        File("quotes\"'`$", "2"),
        File("back\\slash", "3"),
        File("not \xC3\x28 utf8 \xFF\xFE", "4"),
        File("\xEE\xBE\x80 of the private use area", "5"),
        File(std::string(255, 'n'), "6"),
        File("trailing blank ", "7"),
        File("old", "8", 0644, before1970),
        File("new", "9", 0644, after2038),
        File("sticky", "", 01644),
        File("setuid", "", 04755),
        Hard("dir/second name", "setuid"),
        File("linked", "three names"),
        Hard("dir/linked 2", "linked"),
        Hard("linked 3", "linked"),
        Link("dangling", "nowhere/at all"),
        Link("absolute", "/etc/hostname"),
        Link("loop", "loop"),
        Link("slash", "dir/"),
        Link("double", "dir//text"),
        Link("long target", std::string(2000, 't')),
        Fifo("fifo"),
        Dir("empty directory", 0755, before1970),
        Dir("sticky directory", 01777),
        Dir("read-only", 0555),
        File("read-only/inside", "x", 0444),
    };
    // Each component is so long that the path in the source and in the target just fits.
    std::string deep = "deep";
    entries.push_back(Dir(deep));
    for (int level = 0; level < 10; ++level) {
        deep += "/" + std::string(200, static_cast<char>('a' + level));
        entries.push_back(Dir(deep));
    }
    entries.push_back(File(deep + "/bottom", "deep"));
    return entries;
}

} // namespace Testing
