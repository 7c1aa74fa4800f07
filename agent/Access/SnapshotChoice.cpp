#include "agent/Access/SnapshotChoice.h"

#include "agent/Access/TagChange.h"
#include "agent/Run/Text.h"

#include <algorithm>
#include <ctime>
#include <filesystem>

namespace Agent {

using Krt::YString;
using Repo::Id;
using Repo::StoredSnapshot;

namespace {

constexpr std::size_t ShortDigits = 8;

std::string CalendarText(std::int64_t seconds)
{
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (gmtime_r(&time, &parts) == nullptr)
        return std::to_string(seconds);
    char text[96]; // unlike that of strftime, the year has four digits
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text;
}

const char* NameOf(Repo::FileKind kind)
{
    switch (kind) {
    case Repo::FileKind::Key:
        return "key";
    case Repo::FileKind::Snapshot:
        return "snapshot";
    case Repo::FileKind::Pack:
        return "pack";
    case Repo::FileKind::Index:
        return "index file";
    case Repo::FileKind::Lock:
        return "lock";
    default:
        return "file";
    }
}

} // namespace

Repo::SnapshotFilter FilterOf(const SnapshotOptions& options)
{
    Repo::SnapshotFilter filter;
    filter.hosts = options.hosts;
    for (const std::string& list : options.tags)
        filter.tags.push_back(TagsOfList(list));
    for (const std::string& path : options.paths) {
        std::string absolute = std::filesystem::absolute(path).lexically_normal().string();
        if (absolute.size() > 1 && absolute.back() == '/')
            absolute.pop_back();
        filter.paths.push_back(std::move(absolute));
    }
    return filter;
}

StoredSnapshot ChooseSnapshot(Session& session, const std::string& text, const SnapshotOptions& options)
{
    if (text != "latest") {
        try {
            return session.GetRepository().FindSnapshot(LowerDigits(text), FilterOf(options));
        } catch (const Repo::RepositoryError& error) {
            throw Repo::RepositoryError(error.GetFailure(), error, {}, YString(HintOf(error)));
        }
    }
    std::vector<StoredSnapshot> all = ChooseSnapshots(session, {}, options);
    KRT_RAISE_UNLESS(!all.empty(), Krt::ErrorCode::InvalidArgument, "There is no snapshot to choose from");
    if (!session.GetOptions().isQuiet && !session.GetOptions().isJson)
        session.GetReport().Note("latest is " + YString(DescribeSnapshot(all.back())));
    return std::move(all.back());
}

std::vector<StoredSnapshot> ChooseSnapshots(Session& session, const std::vector<std::string>& texts,
                                            const SnapshotOptions& options)
{
    Report& report = session.GetReport();
    if (texts.empty())
        return session.GetRepository().LoadSnapshots(
            FilterOf(options), [&](const Repo::FileName& file, const Repo::RepositoryError& error) {
                ReportFailure(report, file, error);
            });
    std::vector<StoredSnapshot> chosen;
    for (const std::string& text : texts) {
        try {
            StoredSnapshot found = ChooseSnapshot(session, text, options);
            const bool isKnown = std::any_of(chosen.begin(), chosen.end(),
                                             [&](const auto& each) { return each.id == found.id; });
            if (!isKnown)
                chosen.push_back(std::move(found));
        } catch (const Krt::Exception::YError& error) {
            RaiseIfInterrupted();
            report.EntryFailed(YString(std::string_view(text)), ReasonOf(error));
        }
    }
    return chosen;
}

void ReportLeft(Report& report, const Id& old, const Id& replacement, const Repo::RepositoryError& error)
{
    ReportFailure(report, {Repo::FileKind::Snapshot, old}, error,
                  "snapshot " + ShortId(replacement) + " replaces this one, which can't be removed: ");
}

std::string LowerDigits(std::string digits)
{
    for (char& digit : digits)
        digit = digit >= 'A' && digit <= 'F' ? static_cast<char>(digit - 'A' + 'a') : digit;
    return digits;
}

std::string ShortId(const Id& id)
{
    return id.ToHex().substr(0, ShortDigits);
}

std::string DescribeSnapshot(const StoredSnapshot& stored)
{
    const Repo::Snapshot& snapshot = stored.snapshot;
    std::string text = "snapshot " + ShortId(stored.id) + " of [" + Joined(snapshot.paths, " ") + "] at " +
                       CalendarText(snapshot.time.seconds + snapshot.time.offset);
    if (snapshot.time.nanoseconds != 0) {
        std::string fraction = std::to_string(1000000000 + snapshot.time.nanoseconds).substr(1);
        fraction.erase(fraction.find_last_not_of('0') + 1);
        text += "." + fraction;
    }
    const int minutes = std::abs(snapshot.time.offset) / 60;
    char zone[32];
    std::snprintf(zone, sizeof zone, " %c%02d%02d", snapshot.time.offset < 0 ? '-' : '+', minutes / 60,
                  minutes % 60);
    text += zone;
    if (!snapshot.username.empty() || !snapshot.hostname.empty())
        text += " by " + snapshot.username + "@" + snapshot.hostname;
    return text;
}

std::string LocalTime(const Repo::Timestamp& time)
{
    return CalendarText(time.seconds + Repo::Timestamp::Local(time.seconds, 0).offset);
}

Id FindFile(const Repo::Repository& repository, Repo::FileKind kind, const std::string& digits)
{
    const std::string lower = LowerDigits(digits);
    std::optional<Id> found;
    for (const Id& id : repository.ListIds(kind)) {
        if (!id.ToHex().starts_with(lower))
            continue;
        KRT_RAISE_UNLESS(!found, Krt::ErrorCode::InvalidArgument,
                         "The ID of more than one " << NameOf(kind) << " begins with '" << digits.c_str()
                                                    << "'");
        found = id;
    }
    KRT_RAISE_UNLESS(found, Krt::ErrorCode::InvalidArgument,
                     "There is no " << NameOf(kind) << " whose ID begins with '" << digits.c_str() << "'");
    return *found;
}

} // namespace Agent
