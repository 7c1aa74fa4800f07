// The snapshots that a command works on, as users name them, and their description.
#pragma once

#include "agent/Access/Session.h"

#include <string>
#include <vector>

namespace Agent {

/// Options that choose snapshots, as typed.
struct SnapshotOptions
{
    std::vector<std::string> hosts; ///< a name each
    std::vector<std::string> tags;  ///< a list each, separated by commas; "," alone for no tags
    std::vector<std::string> paths; ///< relative ones are those of the working directory
};

Repo::SnapshotFilter FilterOf(const SnapshotOptions& options);

/// The snapshot that the text names: "latest", or the first digits of an id. Reports which one "latest" is,
/// unless the command prints JSON.
/// Snapshots that can't be read are reported as failures of the repository, if they might be the latest.
/// Raises InvalidArgument if no snapshot matches, or if the digits match several; for a damaged snapshot, the
/// message ends with HintOf.
Repo::StoredSnapshot ChooseSnapshot(Session& session, const std::string& text,
                                    const SnapshotOptions& options);

/// The snapshots that the texts name, or all that the options choose if there are no texts. A snapshot that
/// is not found or can't be read is reported as a failed entry.
std::vector<Repo::StoredSnapshot> ChooseSnapshots(Session& session, const std::vector<std::string>& texts,
                                                  const SnapshotOptions& options);

/// Reports a snapshot that was replaced, but can't be removed, as a failure of the repository.
void ReportLeft(Report& report, const Repo::Id& old, const Repo::Id& replacement,
                const Repo::RepositoryError& error);

/// The digits in lower case, as the first digits of an id may be typed in either.
std::string LowerDigits(std::string digits);
/// The first 8 digits.
std::string ShortId(const Repo::Id& id);
/// "snapshot 1234abcd of [/home /etc] at 2024-02-29 12:34:56.5 +0100 by user@host". Not made printable.
std::string DescribeSnapshot(const Repo::StoredSnapshot& stored);
/// "2024-02-29 12:34:56" in the local zone.
std::string LocalTime(const Repo::Timestamp& time);

/// The id of the file of a kind whose first digits these are. Raises InvalidArgument if no file matches,
/// or more than one.
Repo::Id FindFile(const Repo::Repository& repository, Repo::FileKind kind, const std::string& digits);

} // namespace Agent
