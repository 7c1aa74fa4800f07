// Trees of files as literals, and trees on disk as text that can be compared.
#pragma once

#include <string>
#include <vector>

namespace Testing {

/// One entry of a tree; created by the functions below.
struct TreeEntry
{
    enum Kind
    {
        Directory,
        File,
        SymbolicLink,
        HardLink,
        Fifo,
        Socket
    };
    Kind kind;
    std::string name; ///< relative to the tree's root
    std::string text; ///< content of a file, target of a link
    unsigned int mode = 0644;
    long long time = 1000000000; ///< last write, seconds
};

inline TreeEntry Dir(const std::string& name, unsigned int mode = 0755, long long time = 1000000000)
{
    return {TreeEntry::Directory, name, "", mode, time};
}
inline TreeEntry File(const std::string& name, const std::string& content, unsigned int mode = 0644,
                      long long time = 1000000000)
{
    return {TreeEntry::File, name, content, mode, time};
}
inline TreeEntry Link(const std::string& name, const std::string& target)
{
    return {TreeEntry::SymbolicLink, name, target};
}
/// A further hard link to the entry `target`, relative to the root.
inline TreeEntry Hard(const std::string& name, const std::string& target)
{
    return {TreeEntry::HardLink, name, target};
}
inline TreeEntry Fifo(const std::string& name, unsigned int mode = 0644)
{
    return {TreeEntry::Fifo, name, "", mode};
}
inline TreeEntry Socket(const std::string& name)
{
    return {TreeEntry::Socket, name, ""};
}

/// Creates the entries below `root`, in order; the modes and times of directories are set last.
void MakeTree(const std::string& root, const std::vector<TreeEntry>& entries);

/// Returns entries of every kind that an ordinary user may both read and recreate, with names, contents,
/// modes, times and depths at their limits.
std::vector<TreeEntry> EveryKindOfEntry();

/// What DescribeTree includes.
struct TreeView
{
    bool owners = true;
    bool attributes = true; ///< extended ones
    bool links = true;      ///< the number of hard links
    bool identity = false;  ///< the inode, and the nanoseconds of the time
};

/// Returns one line per entry below `root`, sorted: name, kind, permission bits, owner, number of hard links,
/// time, size, extended attributes, and a symlink's target or a digest of the content. Names and values are
/// quoted. The size and the number of links of a directory depend on the file system and are omitted.
std::string DescribeTree(const std::string& root, const TreeView& view = {});

} // namespace Testing
