#include "agent/Repository/Lock.h"

#include "agent/Repository/Json.h"

namespace Agent::Repo {

Lock Lock::Parse(std::string_view json)
{
    Lock lock;
    JsonReader reader(json);
    std::string_view key;
    reader.BeginObject();
    while (reader.NextKey(key)) {
        if (reader.IsNull())
            continue;
        if (IsKey(key, "time"))
            lock.time = reader.Time();
        else if (IsKey(key, "exclusive"))
            lock.isExclusive = reader.Bool();
        else if (IsKey(key, "hostname"))
            lock.hostname = reader.String();
        else if (IsKey(key, "username"))
            lock.username = reader.String();
        else if (IsKey(key, "pid"))
            lock.pid = static_cast<std::uint32_t>(reader.Unsigned(UINT32_MAX));
        else if (IsKey(key, "uid"))
            lock.uid = static_cast<std::uint32_t>(reader.Unsigned(UINT32_MAX));
        else if (IsKey(key, "gid"))
            lock.gid = static_cast<std::uint32_t>(reader.Unsigned(UINT32_MAX));
        else
            reader.Skip();
    }
    reader.End();
    return lock;
}

std::string Lock::ToJson() const
{
    std::string text;
    JsonWriter writer(text);
    writer.BeginObject();
    writer.Key("time");
    writer.Time(time);
    writer.Key("exclusive");
    writer.Bool(isExclusive);
    writer.Key("hostname");
    writer.String(hostname);
    writer.Key("username");
    writer.String(username);
    writer.Key("pid");
    writer.Number(pid);
    if (uid != 0) {
        writer.Key("uid");
        writer.Number(uid);
    }
    if (gid != 0) {
        writer.Key("gid");
        writer.Number(gid);
    }
    writer.EndObject();
    return text;
}

} // namespace Agent::Repo
