#include "agent/Repository/Tree.h"

#include "agent/Repository/NameText.h"
#include "agent/Repository/Utf8.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
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

// Reads a member's value; returns false if its key is not known. The order is that in which writers write, so
// a few comparisons find each. Null leaves a number or a text unchanged.
bool TreeReader::ReadMember(std::string_view key, Node& node)
{
    const auto number = [this](auto& field) {
        if (!m_reader.IsNull())
            field = static_cast<std::remove_reference_t<decltype(field)>>(
                m_reader.Unsigned(std::numeric_limits<std::remove_reference_t<decltype(field)>>::max()));
    };
    const auto time = [this](Timestamp& field) {
        if (!m_reader.IsNull())
            field = m_reader.Time();
    };
    const auto text = [this](std::string& field) {
        if (!m_reader.IsNull())
            field = m_reader.String();
    };
    if (IsKey(key, "name"))
        ReadName(node);
    else if (IsKey(key, "type"))
        m_hasType = m_reader.IsNull() ? m_hasType : (ReadType(m_reader, node), true);
    else if (IsKey(key, "mode"))
        number(node.mode);
    else if (IsKey(key, "mtime"))
        time(node.mtime);
    else if (IsKey(key, "atime"))
        time(node.atime);
    else if (IsKey(key, "ctime"))
        time(node.ctime);
    else if (IsKey(key, "uid"))
        number(node.uid);
    else if (IsKey(key, "gid"))
        number(node.gid);
    else if (IsKey(key, "user"))
        text(node.user);
    else if (IsKey(key, "group"))
        text(node.group);
    else if (IsKey(key, "inode"))
        number(node.inode);
    else if (IsKey(key, "device_id"))
        number(node.deviceId);
    else if (IsKey(key, "size"))
        number(node.size);
    else if (IsKey(key, "links"))
        number(node.links);
    else if (IsKey(key, "device"))
        number(node.device);
    else if (IsKey(key, "error"))
        text(node.error);
    else
        return ReadStructure(key, node);
    return true;
}

bool TreeReader::ReadStructure(std::string_view key, Node& node)
{
    if (IsKey(key, "content")) {
        node.content.reset();
        if (!m_reader.IsNull())
            ReadContent(m_reader, node.content.emplace());
    } else if (IsKey(key, "subtree")) {
        node.subtree.reset();
        if (!m_reader.IsNull())
            node.subtree = m_reader.ReadId();
    } else if (IsKey(key, "linktarget")) {
        if (m_hasRawTarget)
            m_reader.Skip();
        else if (!m_reader.IsNull())
            node.linkTarget = m_reader.String();
    } else if (IsKey(key, "linktarget_raw")) {
        if (m_reader.IsNull())
            return true;
        Bytes target;
        m_reader.Binary(target);
        node.linkTarget = AsText(target);
        m_hasRawTarget = true;
    } else if (IsKey(key, "extended_attributes")) {
        node.attributes.clear();
        if (!m_reader.IsNull())
            ReadAttributes(m_reader, node.attributes);
    } else if (IsKey(key, "generic_attributes")) {
        node.genericAttributes.clear();
        if (!m_reader.IsNull())
            ReadGenericAttributes(m_reader, node.genericAttributes);
    } else {
        return false;
    }
    return true;
}

void TreeReader::ReadName(Node& node)
{
    if (m_reader.IsNull())
        return;
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
