// Trees: the JSON text of a tree blob, read and written one node at a time.
#pragma once

#include "agent/Repository/Node.h"

#include <string>
#include <string_view>
#include <vector>

namespace Agent::Repo {

/// Which members are kept that this program does not know.
enum class UnknownMembers
{
    Ignore,
    Keep
};

/// Reads a tree. The nodes come in the order of the text, whatever their names. One thread at a time.
class TreeReader
{
public:
    /// The text outlives the reader. `unknown` decides on Node::unknown and GetUnknown.
    explicit TreeReader(std::string_view text, UnknownMembers unknown = UnknownMembers::Ignore);

    /// Replaces `node` with the next one. Returns false after the last one, when the whole text was checked.
    /// `node` is unspecified then. Raises Damaged with the offset
    ///   - for text that is not a tree, such as one with two lists of nodes
    ///   - for a node without a name or a type, or whose name no directory can have
    ///   - for a number that is too large for its field, or has more than digits
    /// The reader is not used after a failure.
    bool Next(Node& node);
    /// Members of the tree other than "nodes". Complete after the last node.
    const std::vector<RawMember>& GetUnknown() const { return m_unknown; }

private:
    bool FindNodes();
    void ReadNode(Node& node);
    bool ReadMember(std::string_view key, Node& node);
    bool ReadStructure(std::string_view key, Node& node);
    void ReadName(Node& node);

    enum class Position
    {
        BeforeNodes,
        InNodes,
        AfterNodes
    };

    JsonReader m_reader;
    bool m_keepsUnknown;
    Position m_position = Position::BeforeNodes;
    bool m_hasNodes = false;
    bool m_hasName = false; // of the current node
    bool m_hasType = false;
    bool m_hasRawTarget = false;
    std::vector<RawMember> m_unknown;
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
