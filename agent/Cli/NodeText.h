// Entries of a repository's snapshots as text.
#pragma once

#include "agent/Repository/Node.h"
#include "agent/Repository/Snapshot.h"

#include <string>

namespace Agent {

/// The mode as restic prints it: letters for the kind and the special bits, then nine for the permissions, as
/// in "-rw-r--r--", "Lrwxrwxrwx" and "dtrwxrwxrwx".
std::string NodeModeText(std::uint32_t nodeMode);

/// "-rw-r--r--  0  0  3 2001-02-03 04:05:06 /path": mode, owner, group, size, time in the local zone, path,
/// and the target of a link. Printable, without a line end.
std::string NodeLine(const std::string& path, const Repo::Node& node);

/// The JSON object of an entry, as "ls --json" prints it. A path that is not valid UTF-8 has replacement
/// characters in it, and is also there as the Base64 of its bytes, under "path_base64".
std::string NodeJson(const std::string& path, const Repo::Node& node);

/// The JSON object of an entry in the format that ncdu imports.
std::string NcduJson(const Repo::Node& node);

/// The JSON object of a snapshot: that of its file, with its id. For "ls --json" the kind of the message,
/// too.
std::string SnapshotJson(const Repo::StoredSnapshot& stored, bool isMessage);

/// The JSON message that a snapshot was saved under another id.
std::string ChangeJson(const Repo::Id& from, const Repo::Id& to);

/// The JSON summary of a command that counts what `key` names.
std::string CountJson(const std::string& key, std::uint64_t count);
/// The JSON summary of how many snapshots a command changed.
std::string ChangeCountJson(std::uint64_t count);

} // namespace Agent
