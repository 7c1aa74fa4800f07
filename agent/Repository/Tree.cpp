#include "agent/Repository/Tree.h"

#include "agent/Repository/NameText.h"
#include "agent/Repository/Utf8.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <type_traits>
#include <utility>

namespace Agent::Repo {

namespace {

struct TypeWord
{
    NodeType type;
    std::string_view word;
};

constexpr TypeWord TypeWords[] = {
    {NodeType::File, "file"},       {NodeType::Directory, "dir"},           {NodeType::Symlink, "symlink"},
    {NodeType::BlockDevice, "dev"}, {NodeType::CharacterDevice, "chardev"}, {NodeType::Fifo, "fifo"},
    {NodeType::Socket, "socket"}};

std::string_view WordOf(const Node& node)
{
    for (const TypeWord& each : TypeWords) {
        if (each.type == node.type)
            return each.word;
    }
    return node.typeText;
}

void ReadType(JsonReader& reader, Node& node)
{
    const std::string_view word = reader.String();
    node.typeText.clear();
    for (const TypeWord& each : TypeWords) {
        if (each.word == word) {
            node.type = each.type;
            return;
        }
    }
    node.type = NodeType::Unknown;
    node.typeText = word;
}

void ReadAttributes(JsonReader& reader, std::vector<NodeAttribute>& attributes)
{
    attributes.clear();
    reader.BeginArray();
    while (reader.NextItem()) {
        NodeAttribute& attribute = attributes.emplace_back();
        std::string_view key;
        reader.BeginObject();
        while (reader.NextKey(key)) {
            if (reader.IsNull())
                continue;
            if (IsKey(key, "name"))
                attribute.name = reader.String();
            else if (IsKey(key, "value"))
                reader.Binary(attribute.value);
            else
                reader.Skip();
        }
    }
}

void ReadGenericAttributes(JsonReader& reader, std::vector<RawMember>& attributes)
{
    attributes.clear();
    std::string_view key;
    reader.BeginObject();
    while (reader.NextKey(key))
        reader.Keep(std::string(key), attributes);
    JoinRepeated(attributes);
}

void ReadContent(JsonReader& reader, std::vector<Id>& content)
{
    content.clear();
    reader.BeginArray();
    while (reader.NextItem())
        content.push_back(reader.ReadId());
}

class NodeWriter
{
public:
    explicit NodeWriter(std::string& out) : m_writer(out) {}

    void Write(const Node& node)
    {
        m_writer.BeginObject();
        WriteStatus(node);
        WriteSpecials(node);
        WriteContent(node);
        Text("error", node.error);
        m_writer.Members(node.unknown);
        m_writer.EndObject();
    }

private:
    void WriteStatus(const Node& node)
    {
        std::string quoted;
        AppendQuotedName(node.name, quoted);
        m_writer.Key("name");
        m_writer.String(quoted);
        m_writer.Key("type");
        m_writer.String(WordOf(node));
        Number("mode", node.mode);
        Time("mtime", node.mtime);
        Time("atime", node.atime);
        Time("ctime", node.ctime);
        m_writer.Key("uid");
        m_writer.Number(node.uid);
        m_writer.Key("gid");
        m_writer.Number(node.gid);
        Text("user", node.user);
        Text("group", node.group);
        Number("inode", node.inode);
        Number("device_id", node.deviceId);
        Number("size", node.size);
        Number("links", node.links);
    }
    void WriteSpecials(const Node& node)
    {
        Text("linktarget", node.linkTarget);
        if (!IsUtf8(node.linkTarget)) {
            m_writer.Key("linktarget_raw");
            m_writer.Binary(AsBytes(node.linkTarget));
        }
        if (!node.attributes.empty()) {
            m_writer.Key("extended_attributes");
            m_writer.BeginArray();
            for (const NodeAttribute& attribute : node.attributes) {
                m_writer.BeginObject();
                m_writer.Key("name");
                m_writer.String(attribute.name);
                m_writer.Key("value");
                m_writer.Binary(attribute.value);
                m_writer.EndObject();
            }
            m_writer.EndArray();
        }
        if (!node.genericAttributes.empty()) {
            m_writer.Key("generic_attributes");
            m_writer.BeginObject();
            m_writer.Members(node.genericAttributes);
            m_writer.EndObject();
        }
        Number("device", node.device);
    }
    void WriteContent(const Node& node)
    {
        m_writer.Key("content");
        if (node.content) {
            m_writer.BeginArray();
            for (const Id& id : *node.content)
                m_writer.WriteId(id);
            m_writer.EndArray();
        } else {
            m_writer.Null();
        }
        if (node.subtree) {
            m_writer.Key("subtree");
            m_writer.WriteId(*node.subtree);
        }
    }
    void Number(std::string_view key, std::uint64_t number)
    {
        if (number == 0)
            return;
        m_writer.Key(key);
        m_writer.Number(number);
    }
    void Text(std::string_view key, std::string_view text)
    {
        if (text.empty())
            return;
        m_writer.Key(key);
        m_writer.String(text);
    }
    void Time(std::string_view key, const Timestamp& time)
    {
        m_writer.Key(key);
        m_writer.Time(time);
    }

    JsonWriter m_writer;
};

} // namespace

TreeReader::TreeReader(std::string_view text, UnknownMembers unknown, BadEntryVisitor onBadEntry)
    : m_text(text), m_reader(text), m_keepsUnknown(unknown == UnknownMembers::Keep),
      m_onBadEntry(std::move(onBadEntry))
{}

// Moves to the next list of nodes, or to the end of the tree.
bool TreeReader::FindNodes()
{
    std::string_view key;
    while (m_reader.NextKey(key)) {
        if (!IsKey(key, "nodes")) {
            if (m_keepsUnknown)
                m_reader.Keep(std::string(key), m_unknown);
            else
                m_reader.Skip();
            continue;
        }
        if (m_hasNodes)
            m_reader.RaiseDamaged("the tree has two lists of nodes");
        m_hasNodes = true;
        if (m_reader.IsNull())
            continue;
        m_reader.BeginArray();
        return true;
    }
    m_reader.End();
    JoinRepeated(m_unknown);
    return false;
}

bool TreeReader::Next(Node& node)
{
    if (m_position == Position::BeforeNodes) {
        m_reader.BeginObject();
        m_position = FindNodes() ? Position::InNodes : Position::AfterNodes;
    }
    if (m_position == Position::AfterNodes)
        return false;
    while (m_reader.NextItem()) {
        if (ReadOrSkip(node))
            return true;
    }
    m_position = Position::AfterNodes;
    FindNodes(); // there is not a second list
    return false;
}

bool TreeReader::ReadOrSkip(Node& node)
{
    const std::size_t begin = m_reader.GetOffset();
    try {
        ReadNode(node);
        RequireNewName(node.name);
        m_nodeText = m_text.substr(begin, m_reader.GetOffset() - begin);
        m_nodeText.remove_prefix(m_nodeText.find('{')); // of blanks
        return true;
    } catch (const RepositoryError& error) {
        if (!m_onBadEntry)
            throw;
        m_reader.ReturnTo(begin);
        m_reader.Skip(); // raises if the text itself is damaged
        const std::string prefix = m_hasName ? "entry \"" + node.name + "\": " : "";
        m_onBadEntry(RepositoryError(error.GetFailure(), error, Krt::YString(std::string_view(prefix))));
        return false;
    }
}

// Names in order are new. For the others the names before are collected.
void TreeReader::RequireNewName(const std::string& name)
{
    if (m_names.empty() && m_last < name) {
        m_last = name;
        return;
    }
    if (m_names.empty()) {
        TreeReader again(m_text, UnknownMembers::Ignore, [](const RepositoryError&) {});
        for (Node node; again.Next(node);) {
            m_names.insert(node.name);
            if (node.name == m_last)
                break;
        }
    }
    if (!m_names.insert(name).second)
        m_reader.RaiseDamaged("the directory has another entry of this name");
}

void TreeReader::ReadNode(Node& node)
{
    node.Clear();
    m_hasName = m_hasType = m_hasRawTarget = false;
    m_nextMember = 0;
    std::string_view key;
    m_reader.BeginObject();
    while (m_reader.NextKey(key)) {
        if (ReadMember(key, node))
            continue;
        if (m_keepsUnknown)
            m_reader.Keep(std::string(key), node.unknown);
        else
            m_reader.Skip();
    }
    JoinRepeated(node.unknown);
    if (!m_hasName || !m_hasType)
        m_reader.RaiseDamaged("a node has no name or no type");
    if (!IsEntryName(node.name))
        m_reader.RaiseDamaged("no directory can have an entry of this name");
    const auto isCut = [](const std::string& text) { // by the system, which takes it to the NUL
        return text.find('\0') != std::string::npos;
    };
    if (isCut(node.linkTarget))
        m_reader.RaiseDamaged("no symlink can have this target");
    if (std::any_of(node.attributes.begin(), node.attributes.end(),
                    [&](const NodeAttribute& attribute) { return isCut(attribute.name); }))
        m_reader.RaiseDamaged("no extended attribute can have this name");
}

// Finds a key in the order in which writers write: the key after the one before is tried first.
TreeReader::Member TreeReader::FindMember(std::string_view key)
{
    // In the order of Member.
    static constexpr std::string_view Keys[] = {"name",
                                                "type",
                                                "mode",
                                                "mtime",
                                                "atime",
                                                "ctime",
                                                "uid",
                                                "gid",
                                                "user",
                                                "group",
                                                "inode",
                                                "device_id",
                                                "size",
                                                "links",
                                                "linktarget",
                                                "linktarget_raw",
                                                "extended_attributes",
                                                "generic_attributes",
                                                "device",
                                                "content",
                                                "subtree",
                                                "error"};
    static_assert(std::size(Keys) == static_cast<std::size_t>(Member::Unknown));
    for (std::size_t tried = 0; tried < std::size(Keys); ++tried) {
        const std::size_t at = (m_nextMember + tried) % std::size(Keys);
        if (IsKey(key, Keys[at])) {
            m_nextMember = at + 1;
            return static_cast<Member>(at);
        }
    }
    return Member::Unknown;
}

// Reads a member's value; returns false if its key is not known. Null leaves a number or a text unchanged.
bool TreeReader::ReadMember(std::string_view key, Node& node)
{
    const Member member = FindMember(key);
    if (member == Member::Unknown)
        return false;
    if (m_reader.IsNull()) {
        ReadNull(member, node);
        return true;
    }
    const auto number = [this](auto& field) {
        field = static_cast<std::remove_reference_t<decltype(field)>>(
            m_reader.Unsigned(std::numeric_limits<std::remove_reference_t<decltype(field)>>::max()));
    };
    switch (member) {
    case Member::Name:
        ReadName(node);
        break;
    case Member::Type:
        ReadType(m_reader, node);
        m_hasType = true;
        break;
    case Member::Mode:
        number(node.mode);
        break;
    case Member::WriteTime:
        node.mtime = m_reader.Time();
        break;
    case Member::AccessTime:
        node.atime = m_reader.Time();
        break;
    case Member::ChangeTime:
        node.ctime = m_reader.Time();
        break;
    case Member::Uid:
        number(node.uid);
        break;
    case Member::Gid:
        number(node.gid);
        break;
    case Member::User:
        node.user = m_reader.String();
        break;
    case Member::Group:
        node.group = m_reader.String();
        break;
    case Member::Inode:
        number(node.inode);
        break;
    case Member::DeviceId:
        number(node.deviceId);
        break;
    case Member::Size:
        number(node.size);
        break;
    case Member::Links:
        number(node.links);
        break;
    case Member::Device:
        number(node.device);
        break;
    case Member::Error:
        node.error = m_reader.String();
        break;
    default:
        ReadStructure(member, node);
    }
    return true;
}

// Empties lists. Numbers, texts and the raw target of a symlink stay.
void TreeReader::ReadNull(Member member, Node& node)
{
    switch (member) {
    case Member::Content:
        node.content.reset();
        break;
    case Member::Subtree:
        node.subtree.reset();
        break;
    case Member::Attributes:
        node.attributes.clear();
        break;
    case Member::GenericAttributes:
        node.genericAttributes.clear();
        break;
    default:
        break;
    }
}

void TreeReader::ReadStructure(Member member, Node& node)
{
    switch (member) {
    case Member::Content:
        ReadContent(m_reader, node.content.emplace());
        break;
    case Member::Subtree:
        node.subtree = m_reader.ReadId();
        break;
    case Member::LinkTarget:
        if (m_hasRawTarget)
            m_reader.Skip();
        else
            node.linkTarget = m_reader.String();
        break;
    case Member::RawLinkTarget: {
        Bytes target;
        m_reader.Binary(target);
        node.linkTarget = AsText(target);
        m_hasRawTarget = true;
        break;
    }
    case Member::Attributes:
        ReadAttributes(m_reader, node.attributes);
        break;
    case Member::GenericAttributes:
        ReadGenericAttributes(m_reader, node.genericAttributes);
        break;
    default:
        break;
    }
}

void TreeReader::ReadName(Node& node)
{
    if (!UnquoteName(m_reader.String(), node.name))
        m_reader.RaiseDamaged("a name is not quoted correctly");
    m_hasName = true;
}

void AppendNode(const Node& node, std::string& out)
{
    NodeWriter(out).Write(node);
}

void TreeWriter::Add(const Node& node)
{
    KRT_RAISE_UNLESS(IsEntryName(node.name), Krt::ErrorCode::InvalidArgument,
                     "No directory can have an entry of this name");
    KRT_RAISE_UNLESS(m_text.empty() || m_last < node.name, Krt::ErrorCode::InvalidArgument,
                     "The nodes of a tree are not in order");
    m_text += m_text.empty() ? "{\"nodes\":[" : ",";
    AppendNode(node, m_text);
    m_last = node.name;
}

std::string TreeWriter::Finish(const std::vector<RawMember>& unknown)
{
    if (m_text.empty())
        m_text = "{\"nodes\":[";
    m_text += ']';
    if (!unknown.empty()) {
        m_text += ',';
        JsonWriter(m_text).Members(unknown);
    }
    m_text += "}\n";
    return std::exchange(m_text, {});
}

} // namespace Agent::Repo
