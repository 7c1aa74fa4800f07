// Trees: the JSON text of a tree blob, read and written one node at a time.
#pragma once

#include "agent/Repository/Failure.h"
#include "agent/Repository/Node.h"

#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace Agent::Repo {

/// Which members are kept that this program does not know.
enum class UnknownMembers
{
    Ignore,
    Keep
};

/// Called for an entry of a tree that is skipped. The error names the entry, if it has a name, and the
/// reason.
using BadEntryVisitor = std::function<void(const RepositoryError& error)>;

/// Reads a tree. The nodes come in the order of the text, whatever their names. One thread at a time.
class TreeReader
{
public:
    /// The text outlives the reader. `unknown` decides on Node::unknown and GetUnknown. With `onBadEntry`, an
    /// entry that is wrong in itself is given to it and skipped.
    explicit TreeReader(std::string_view text, UnknownMembers unknown = UnknownMembers::Ignore,
                        BadEntryVisitor onBadEntry = {});

    /// Replaces `node` with the next one. Returns false after the last one, when the whole text was checked.
    /// `node` is unspecified then. Raises Damaged with the offset for text that is not a tree, such as one
    /// that is cut off or has two lists of nodes. The reader is not used after a failure. A single entry is
    /// wrong
    ///   - without a name or a type, or with a name that no directory can have
    ///   - if an entry before it has the same name
    ///   - if a value is of the wrong kind, or a number is too large for its field
    /// Without `onBadEntry`, that raises Damaged, too.
    bool Next(Node& node);
    /// The JSON text of the last node, which is a part of that of the tree.
    std::string_view GetNodeText() const { return m_nodeText; }
    /// Members of the tree other than "nodes". Complete after the last node.
    const std::vector<RawMember>& GetUnknown() const { return m_unknown; }

private:
    bool FindNodes();
    bool ReadOrSkip(Node& node);
    void ReadNode(Node& node);
    void RequireNewName(const std::string& name);
    // The members of a node, in the order in which they are written.
    enum class Member
    {
        Name,
        Type,
        Mode,
        WriteTime,
        AccessTime,
        ChangeTime,
        Uid,
        Gid,
        User,
        Group,
        Inode,
        DeviceId,
        Size,
        Links,
        LinkTarget,
        RawLinkTarget,
        Attributes,
        GenericAttributes,
        Device,
        Content,
        Subtree,
        Error,
        Unknown
    };

    Member FindMember(std::string_view key);
    bool ReadMember(std::string_view key, Node& node);
    static void ReadNull(Member member, Node& node);
    void ReadStructure(Member member, Node& node);
    void ReadName(Node& node);

    enum class Position
    {
        BeforeNodes,
        InNodes,
        AfterNodes
    };

    std::string_view m_text;
    std::string_view m_nodeText;
    JsonReader m_reader;
    bool m_keepsUnknown;
    BadEntryVisitor m_onBadEntry;
    Position m_position = Position::BeforeNodes;
    bool m_hasNodes = false;
    bool m_hasName = false; // of the current node
    bool m_hasType = false;
    bool m_hasRawTarget = false;
    std::size_t m_nextMember = 0; // see FindMember
    std::vector<RawMember> m_unknown;
    std::string m_last;                      // name of the last node, while the nodes are in order
    std::unordered_set<std::string> m_names; // of all nodes, from the first one on that is not in order
};

/// Appends the node's JSON object to `out`, in the form that the format prescribes.
void AppendNode(const Node& node, std::string& out);

/// Writes a tree. One thread at a time.
class TreeWriter
{
public:
    /// Adds a node, whose name comes after those of all nodes before, by the bytes. Raises InvalidArgument
    /// otherwise, and for a name that no directory can have.
    void Add(const Node& node);
    /// Bytes of the text so far.
    std::size_t Size() const { return m_text.size(); }
    /// The text. `unknown` are further members after "nodes". The writer begins the next tree.
    std::string Finish(const std::vector<RawMember>& unknown = {});

private:
    std::string m_text;
    std::string m_last; // name of the last node
};

} // namespace Agent::Repo
