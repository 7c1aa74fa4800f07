#include "agent/Cli/Command.h"

#include "agent/Cli/NodeText.h"
#include "agent/Cli/PruneArguments.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/SnapshotGroups.h"
#include "agent/Forget/Retention.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace Agent {

using Krt::YString;
using Repo::StoredSnapshot;

namespace {

// The options of a rule, in the order of Period.
struct RuleOptions
{
    const char* counts;
    const char* countText;
    const char* within;
    const char* withinText;
};

constexpr RuleOptions Rules[RetentionPolicy::PeriodCount] = {
    {"-l,--keep-last", "Keep the N newest snapshots; unlimited or -1: all", "--keep-within",
     "Keep snapshots that are this much older than the newest, or less, as in 2y5m7d3h"},
    {"-H,--keep-hourly", "Keep a snapshot for each of the last N hours that have any", "--keep-within-hourly",
     "Keep a snapshot for each hour of this time before the newest"},
    {"-d,--keep-daily", "Keep a snapshot for each of the last N days that have any", "--keep-within-daily",
     "Keep a snapshot for each day of this time before the newest"},
    {"-w,--keep-weekly", "Keep a snapshot for each of the last N weeks that have any", "--keep-within-weekly",
     "Keep a snapshot for each week of this time before the newest"},
    {"-m,--keep-monthly", "Keep a snapshot for each of the last N months that have any",
     "--keep-within-monthly", "Keep a snapshot for each month of this time before the newest"},
    {"-y,--keep-yearly", "Keep a snapshot for each of the last N years that have any", "--keep-within-yearly",
     "Keep a snapshot for each year of this time before the newest"},
};

// What a policy makes of a group. Snapshots are sorted from the oldest to the newest.
struct Decision
{
    GroupKey key;
    std::vector<StoredSnapshot> kept;
    std::vector<std::vector<std::string>> reasons; // for each that is kept
    std::vector<StoredSnapshot> removed;
};

class ForgetCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    RetentionPolicy PolicyOf() const;
    void RequireSense(const RetentionPolicy& policy) const;
    std::vector<StoredSnapshot> ChooseNamed(Session& session) const;
    std::vector<StoredSnapshot> ChooseBy(const RetentionPolicy& policy, const Grouping& grouping,
                                         Session& session) const;
    std::vector<Decision> Decide(const RetentionPolicy& policy, const Grouping& grouping,
                                 Session& session) const;
    void Print(const Decision& decision, Report& report) const;
    std::size_t Remove(const std::vector<StoredSnapshot>& snapshots, Session& session) const;

    RepositoryArguments m_repository;
    PruneArguments m_pruning;
    std::vector<CLI::Option*> m_pruneOptions; // those that need --prune
    CLI::Option* m_ids = nullptr;
    std::array<std::string, RetentionPolicy::PeriodCount> m_counts;
    std::array<std::string, RetentionPolicy::PeriodCount> m_within;
    std::vector<std::string> m_keepTags;
    std::string m_groupBy = "host,paths";
    bool m_isCompact = false;
    bool m_isDryRun = false;
    bool m_mayRemoveAll = false;
    bool m_hasNoFreeSpace = false;
    bool m_prunes = false;
};

CLI::App* ForgetCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("forget", "Remove snapshots, by name or by a policy");
    m_repository.AddTo(*command);
    m_repository.AddSnapshotOptionsTo(*command, "--host"); // -H is restic's for hourly ones
    for (std::size_t i = 0; i < RetentionPolicy::PeriodCount; ++i) {
        command->add_option(Rules[i].counts, m_counts[i], Rules[i].countText)->type_name("N");
        command->add_option(Rules[i].within, m_within[i], Rules[i].withinText)->type_name("DURATION");
    }
    command
        ->add_option(
            "--keep-tag", m_keepTags,
            "Keep snapshots with all tags of a list, as in a,b; \"\" or \",\" for those without tags")
        ->type_name("LIST")
        ->allow_extra_args(false);
    command
        ->add_option(
            "-g,--group-by", m_groupBy,
            "Apply the policy to each group of the same host, paths or tags; \"\" or \",\" for no groups")
        ->type_name("LIST")
        ->capture_default_str();
    command->add_flag("-n,--dry-run", m_isDryRun, "Remove nothing, but print what would be removed");
    command->add_flag("--prune", m_prunes, "If snapshots are removed, then do what the command prune does");
    const std::size_t before = command->get_options().size();
    m_pruning.AddTo(*command);
    const std::vector<CLI::Option*> added = command->get_options();
    m_pruneOptions.assign(added.begin() + static_cast<std::ptrdiff_t>(before), added.end());
    command->add_flag("-c,--compact", m_isCompact, "Leave the reasons and the paths out");
    command->add_flag("--unsafe-allow-remove-all", m_mayRemoveAll,
                      "Allow to remove all snapshots that --host, --tag and --path choose");
    command->add_flag("--recover-no-free-space", m_hasNoFreeSpace,
                      "For a full disk: write no lock; no other process may use the repository");
    m_ids = AddPathArguments(*command, "Remove these snapshots: first digits of IDs, or latest", "ID");
    command->footer(
        "A snapshot stays if one of the --keep options keeps it. Hours, days and so on are those of the\n"
        "calendar, and only those with a snapshot count; the newest snapshot of each is kept.\n"
        "The contents remain in the repository until they are pruned.\n\n" +
        std::string(RepositoryHelp) +
        "Example: kbagent forget --repo /backup/repository --keep-daily 7 --keep-weekly 5 --dry-run");
    return command;
}

void ForgetCommand::Run(Report& report)
{
    const RetentionPolicy policy = PolicyOf();
    RequireSense(policy);
    const Grouping grouping(m_groupBy);
    PruneOptions pruning = m_prunes ? m_pruning.Get() : PruneOptions();
    RepositoryOptions options = m_repository.Get();
    options.mayRecoverSpace = true;
    const Access dryRun = m_prunes ? Access::DryRun : Access::Read;
    Session session(options, report,
                    m_hasNoFreeSpace ? Access::Recovery
                    : m_isDryRun     ? dryRun
                                     : Access::Exclusive,
                    m_prunes ? OldFormat::Refused : OldFormat::Accepted);
    const std::vector<StoredSnapshot> chosen =
        m_ids->count() != 0 ? ChooseNamed(session) : ChooseBy(policy, grouping, session);
    std::size_t removed = chosen.size();
    if (!m_isDryRun) {
        report.GoOnWithoutOutput();
        report.Out().Flush(); // before errors
        removed = Remove(chosen, session);
    } else if (!chosen.empty() && !options.isJson && !options.isQuiet) {
        std::string ids;
        for (const StoredSnapshot& stored : chosen)
            ids += (ids.empty() ? "" : " ") + ShortId(stored.id);
        report.Out() << "Would have removed the following snapshots:\n{" << ids << "}\n";
    }
    if (!m_prunes || removed == 0)
        return;
    pruning.hasNoFreeSpace = m_hasNoFreeSpace;
    pruning.isDryRun = m_isDryRun;
    if (m_isDryRun) {
        for (const StoredSnapshot& stored : chosen)
            pruning.forgotten.insert(stored.id);
    }
    try {
        PruneAndPrint(session, pruning);
    } catch (const Repo::RepositoryError& error) {
        if (m_isDryRun)
            throw;
        RaiseIfInterrupted();
        report.RepositoryFailed("prune", "The snapshots were removed, but what only they need was not: " +
                                             ReasonOf(error));
    }
}

RetentionPolicy ForgetCommand::PolicyOf() const
{
    RetentionPolicy policy;
    for (std::size_t i = 0; i < RetentionPolicy::PeriodCount; ++i) {
        if (!m_counts[i].empty())
            policy.counts[i] = ParseKeepCount(m_counts[i]);
        if (!m_within[i].empty())
            policy.within[i] = CalendarSpan::Parse(m_within[i]);
    }
    policy.tags = FilterOf({.hosts = {}, .tags = m_keepTags, .paths = {}}).tags;
    return policy;
}

void ForgetCommand::RequireSense(const RetentionPolicy& policy) const
{
    const SnapshotOptions& filter = m_repository.GetSnapshotOptions();
    const bool hasFilter = !filter.hosts.empty() || !filter.tags.empty() || !filter.paths.empty();
    if (m_mayRemoveAll && !hasFilter)
        throw UsageError("--unsafe-allow-remove-all needs --host, --tag or --path");
    for (const CLI::Option* option : m_pruneOptions) {
        if (option->count() != 0 && !m_prunes)
            throw UsageError(option->get_name() + " needs --prune");
    }
    if (m_ids->count() != 0 && (!policy.IsEmpty() || m_mayRemoveAll))
        throw UsageError("Name snapshots, or give a policy, but not both");
    if (m_ids->count() == 0 && policy.IsEmpty() && !m_mayRemoveAll)
        throw UsageError("Name snapshots, or a policy that keeps some, such as --keep-daily 7");
}

bool FitsSeveral(const Repo::Repository& repository, const std::string& digits)
{
    const std::vector<Repo::Id> ids = repository.ListIds(Repo::FileKind::Snapshot);
    const std::string lower = LowerDigits(digits);
    return std::count_if(ids.begin(), ids.end(),
                         [&](const Repo::Id& id) { return id.ToHex().starts_with(lower); }) > 1;
}

std::vector<StoredSnapshot> ForgetCommand::ChooseNamed(Session& session) const
{
    std::vector<StoredSnapshot> chosen;
    for (const std::string& text : PathsOf(m_ids)) {
        try {
            StoredSnapshot found = ChooseSnapshot(session, text, m_repository.GetSnapshotOptions());
            const bool isKnown = std::any_of(chosen.begin(), chosen.end(),
                                             [&](const StoredSnapshot& each) { return each.id == found.id; });
            if (!isKnown)
                chosen.push_back(std::move(found));
        } catch (const Repo::RepositoryError& error) {
            session.GetReport().EntryFailed(YString(std::string_view(text)), ReasonOf(error));
        } catch (const Krt::Exception::YError& error) {
            RaiseIfInterrupted();
            if (FitsSeveral(session.GetRepository(), text)) {
                session.GetReport().EntryFailed(YString(std::string_view(text)), ReasonOf(error));
                continue;
            }
            // What is not there needs no removal, so restic succeeds, too.
            session.GetReport().Note("Ignoring '" + YString(std::string_view(text)) +
                                     "': " + ReasonOf(error));
        }
    }
    return chosen;
}

std::vector<Decision> ForgetCommand::Decide(const RetentionPolicy& policy, const Grouping& grouping,
                                            Session& session) const
{
    const Repo::Timestamp now = Repo::Timestamp::Now();
    std::vector<Decision> decisions;
    for (auto& [key, group] :
         grouping.Group(ChooseSnapshots(session, {}, m_repository.GetSnapshotOptions()))) {
        std::vector<StoredSnapshot> fromNewest(group.rbegin(), group.rend());
        std::vector<std::vector<std::string>> reasons = ReasonsToKeep(policy, fromNewest, now);
        Decision decision{key, {}, {}, {}};
        for (std::size_t i = fromNewest.size(); i-- != 0;) {
            if (reasons[i].empty()) {
                decision.removed.push_back(std::move(fromNewest[i]));
                continue;
            }
            decision.kept.push_back(std::move(fromNewest[i]));
            decision.reasons.push_back(std::move(reasons[i]));
        }
        KRT_RAISE_UNLESS(m_mayRemoveAll || !decision.kept.empty(), Krt::ErrorCode::InvalidState,
                         "Nothing was removed, since the policy keeps none of the "
                             << key.Describe().c_str() << "; --unsafe-allow-remove-all allows that");
        decisions.push_back(std::move(decision));
    }
    return decisions;
}

// restic's lists are in this order, and null if they are empty.
void WriteFromNewest(Repo::JsonWriter& writer, const char* key, std::size_t count,
                     const std::function<void(std::size_t i)>& write)
{
    writer.Key(key);
    if (count == 0) {
        writer.Null();
        return;
    }
    writer.BeginArray();
    for (std::size_t i = count; i-- != 0;)
        write(i);
    writer.EndArray();
}

std::string JsonOf(const std::vector<Decision>& decisions)
{
    std::string json;
    Repo::JsonWriter writer(json);
    const auto strings = [&](const char* key, const std::optional<std::vector<std::string>>& texts) {
        writer.Key(key);
        texts && !texts->empty() ? writer.Strings(*texts) : writer.Null();
    };
    writer.BeginArray();
    for (const Decision& decision : decisions) {
        writer.BeginObject();
        strings("tags", decision.key.tags);
        writer.Key("host");
        writer.String(decision.key.host.value_or(""));
        strings("paths", decision.key.paths);
        WriteFromNewest(writer, "keep", decision.kept.size(),
                        [&](std::size_t i) { writer.Raw(SnapshotJson(decision.kept[i], false)); });
        WriteFromNewest(writer, "remove", decision.removed.size(),
                        [&](std::size_t i) { writer.Raw(SnapshotJson(decision.removed[i], false)); });
        WriteFromNewest(writer, "reasons", decision.kept.size(), [&](std::size_t i) {
            writer.BeginObject();
            writer.Key("snapshot");
            writer.Raw(SnapshotJson(decision.kept[i], false));
            writer.Key("matches");
            writer.Strings(decision.reasons[i]);
            writer.EndObject();
        });
        writer.EndObject();
    }
    writer.EndArray();
    return json;
}

void ForgetCommand::Print(const Decision& decision, Report& report) const
{
    if (decision.key != GroupKey())
        report.Out() << decision.key.Describe() << ":\n\n";
    if (!decision.kept.empty())
        report.Out() << "keep " << CountText(decision.kept.size(), "snapshot", "snapshots") << ":\n"
                     << SnapshotTable{m_isCompact, decision.reasons}.ToText(decision.kept) << "\n";
    if (!decision.removed.empty())
        report.Out() << "remove " << CountText(decision.removed.size(), "snapshot", "snapshots") << ":\n"
                     << SnapshotTable{m_isCompact, {}}.ToText(decision.removed) << "\n";
}

// The options as typed, each after a blank.
std::string TextOf(const SnapshotOptions& options)
{
    std::string text;
    const auto add = [&text](const char* name, const std::vector<std::string>& values) {
        for (const std::string& value : values)
            text += std::string(" --") + name + " '" + value + "'";
    };
    add("host", options.hosts);
    add("tag", options.tags);
    add("path", options.paths);
    return text;
}

std::vector<StoredSnapshot> ForgetCommand::ChooseBy(const RetentionPolicy& policy, const Grouping& grouping,
                                                    Session& session) const
{
    Report& report = session.GetReport();
    const RepositoryOptions& options = session.GetOptions();
    std::vector<Decision> decisions = Decide(policy, grouping, session);
    if (const std::string filter = TextOf(m_repository.GetSnapshotOptions());
        decisions.empty() && !filter.empty())
        report.Note(YString("no snapshot matches" + filter));
    if (options.isJson)
        report.Out() << PrintableJson(JsonOf(decisions)) << "\n";
    else if (!options.isQuiet && !policy.IsEmpty())
        report.Out() << "Applying Policy: " << Printable(policy.ToText()) << "\n";
    std::vector<StoredSnapshot> chosen;
    for (Decision& decision : decisions) {
        if (!options.isJson && !options.isQuiet)
            Print(decision, report);
        std::move(decision.removed.begin(), decision.removed.end(), std::back_inserter(chosen));
    }
    return chosen;
}

// Returns the number of those that were removed. The others are reported.
std::size_t ForgetCommand::Remove(const std::vector<StoredSnapshot>& snapshots, Session& session) const
{
    Report& report = session.GetReport();
    const bool prints = !session.GetOptions().isJson && !session.GetOptions().isQuiet;
    std::size_t count = 0;
    for (const StoredSnapshot& stored : snapshots) {
        const Repo::FileName file{Repo::FileKind::Snapshot, stored.id};
        try {
            session.GetRepository().GetBackend().Remove(file);
        } catch (const Repo::RepositoryError& error) {
            ReportFailure(report, file, error);
            continue;
        }
        ++count;
        if (!prints)
            continue;
        report.Out() << "removed snapshot " << ShortId(stored.id) << "\n";
        report.Out().Flush();
    }
    if (prints && !snapshots.empty())
        report.PrintAndLog("removed " + std::to_string(count) + " of " +
                           CountText(snapshots.size(), "snapshot", "snapshots") + "\n");
    return count;
}

} // namespace

std::unique_ptr<ICommand> MakeForgetCommand()
{
    return std::make_unique<ForgetCommand>();
}

} // namespace Agent
