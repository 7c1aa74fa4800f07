#include "agent/Cli/NodeText.h"

#include "agent/Access/SnapshotChoice.h"
#include "agent/Run/Text.h"

#include <utf8.h>

#include <algorithm>
#include <cstdio>

namespace Agent {

using Repo::JsonWriter;
using Repo::Node;
using Repo::NodeType;

namespace {

constexpr std::uint64_t NcduBlock = 512; // bytes; a snapshot does not record what a file occupies

const char* TypeWord(const Node& node)
{
    switch (node.type) {
    case NodeType::File:
        return "file";
    case NodeType::Directory:
        return "dir";
    case NodeType::Symlink:
        return "symlink";
    case NodeType::BlockDevice:
        return "dev";
    case NodeType::CharacterDevice:
        return "chardev";
    case NodeType::Fifo:
        return "fifo";
    case NodeType::Socket:
        return "socket";
    default:
        return node.typeText.c_str();
    }
}

} // namespace

std::string NodeModeText(std::uint32_t nodeMode)
{
    constexpr std::string_view Kinds = "dalTLDpSugct?"; // bits 31 to 19
    constexpr std::string_view Permissions = "rwxrwxrwx";
    std::string text;
    for (std::size_t i = 0; i < Kinds.size(); ++i) {
        if ((nodeMode & (0x80000000u >> i)) != 0)
            text += Kinds[i];
    }
    if (text.empty())
        text = "-";
    for (std::size_t i = 0; i < Permissions.size(); ++i)
        text += (nodeMode & (0400u >> i)) != 0 ? Permissions[i] : '-';
    return text;
}

std::string NodeLine(const std::string& path, const Node& node)
{
    char columns[128];
    std::snprintf(columns, sizeof columns, " %5u %5u %6llu ", node.uid, node.gid,
                  static_cast<unsigned long long>(node.size));
    std::string line = NodeModeText(node.mode) + columns + LocalTime(node.mtime) + " " + Printable(path);
    if (node.type == NodeType::Symlink)
        line += " -> " + Printable(node.linkTarget);
    return line;
}

std::string NodeJson(const std::string& path, const Node& node)
{
    std::string json;
    JsonWriter writer(json);
    const auto text = [&](const char* key, std::string_view value) {
        writer.Key(key);
        writer.String(value);
    };
    const auto number = [&](const char* key, std::uint64_t value) {
        writer.Key(key);
        writer.Number(value);
    };
    const auto time = [&](const char* key, const Repo::Timestamp& value) {
        writer.Key(key);
        writer.Time(value);
    };
    writer.BeginObject();
    text("name", node.name);
    text("type", TypeWord(node));
    text("path", path);
    if (!utf8::is_valid(path.begin(), path.end())) {
        writer.Key("path_base64");
        writer.Binary(Repo::AsBytes(path));
    }
    number("uid", node.uid);
    number("gid", node.gid);
    if (node.type == NodeType::File)
        number("size", node.size);
    number("mode", node.mode);
    text("permissions", NodeModeText(node.mode));
    time("mtime", node.mtime);
    time("atime", node.atime);
    time("ctime", node.ctime);
    if (node.inode != 0)
        number("inode", node.inode);
    text("message_type", "node");
    text("struct_type", "node");
    writer.EndObject();
    return json;
}

std::string NcduJson(const Node& node)
{
    std::string json;
    JsonWriter writer(json);
    const auto number = [&](const char* key, std::uint64_t value) {
        writer.Key(key);
        writer.Number(value);
    };
    writer.BeginObject();
    writer.Key("name");
    writer.String(node.name);
    number("asize", node.size);
    number("dsize", (node.size + NcduBlock - 1) / NcduBlock * NcduBlock);
    number("dev", node.deviceId);
    number("ino", node.inode);
    if (node.type == NodeType::File && node.links > 1) {
        writer.Key("hlnkc");
        writer.Bool(true);
        number("nlink", node.links);
    }
    if (node.type != NodeType::File && node.type != NodeType::Directory) {
        writer.Key("notreg");
        writer.Bool(true);
    }
    number("uid", node.uid);
    number("gid", node.gid);
    number("mode", Repo::MakeStatMode(node.mode) & 07777);
    number("mtime", static_cast<std::uint64_t>(std::max<std::int64_t>(0, node.mtime.seconds)));
    writer.EndObject();
    return json;
}

std::string SnapshotJson(const Repo::StoredSnapshot& stored, bool isMessage)
{
    std::string json = stored.snapshot.ToJson();
    json.erase(json.find_last_of('}'));
    json += ",\"id\":\"" + stored.id.ToHex() + "\",\"short_id\":\"" + ShortId(stored.id) + "\"";
    if (isMessage)
        json += R"(,"message_type":"snapshot","struct_type":"snapshot")";
    return json + "}";
}

std::string ChangeJson(const Repo::Id& from, const Repo::Id& to)
{
    return R"({"message_type":"changed","old_snapshot_id":")" + from.ToHex() + R"(","new_snapshot_id":")" +
           to.ToHex() + "\"}";
}

std::string CountJson(const std::string& key, std::uint64_t count)
{
    return R"({"message_type":"summary",")" + key + "\":" + std::to_string(count) + "}";
}

std::string ChangeCountJson(std::uint64_t count)
{
    return CountJson("changed_snapshots", count);
}

} // namespace Agent
