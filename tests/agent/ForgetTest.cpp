// forget: what policies keep and why, judged by restic 0.14; and what is removed.
#include "agent/Forget/Retention.h"
#include "agent/Repository/Lock.h"

#include "testing/FileSizeLimit.h"
#include "testing/RepositoryFixture.h"

#include <boost/json.hpp>

#include <map>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

using namespace Agent;
using namespace Testing;
using Repo::FileKind;
using Repo::Id;
using Repo::Timestamp;
namespace json = boost::json;

namespace {

std::string Replaced(std::string text, const std::string& from, const std::string& to)
{
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

class Forget : public RepositoryFixture
{
protected:
    void SetUp() override
    {
        setenv("TZ", "Europe/Berlin", 1); // also for the programs
        tzset();
    }
    void TearDown() override
    {
        unsetenv("TZ");
        tzset();
    }

    Id Save(const std::string& host, const Timestamp& time, const std::vector<std::string>& tags = {}) const
    {
        Repo::Snapshot snapshot;
        snapshot.time = time;
        snapshot.tree = Id::Of({});
        snapshot.paths = {"/" + host, "/x"}; // restic prints them sorted
        snapshot.hostname = host;
        snapshot.tags = tags;
        return opened.SaveText(FileKind::Snapshot, snapshot.ToJson());
    }
    Id Save(const std::string& host, const char* time) const { return Save(host, *Timestamp::Parse(time)); }
    std::size_t Count() const { return opened.ListIds(FileKind::Snapshot).size(); }

    const Repo::Repository opened = Create();
};

// For each group, its snapshots from the newest to the oldest, those that stay with their reasons. 0.14 does
// not keep the oldest one of a group in addition.
std::map<std::string, std::string> DecisionsOf(const std::string& text)
{
    const auto items = [](const json::value& list) {
        return list.is_null() ? json::array() : list.as_array();
    };
    std::map<std::string, std::string> all;
    const json::value groups = json::parse(text);
    for (const json::value& group : groups.as_array()) {
        std::string kept, oldest;
        const json::array reasons = items(group.at("reasons"));
        const json::value* because = reasons.data();
        for (const json::value& snapshot : items(group.at("keep"))) {
            EXPECT_EQ(because->at("snapshot").at("time"), snapshot.at("time"));
            std::string matches;
            for (const json::value& match : (because++)->at("matches").as_array())
                matches += match.as_string().starts_with("oldest") ? "" : json::serialize(match);
            (matches.empty() ? oldest : kept) += json::serialize(snapshot) + matches + "\n";
        }
        kept += "removed:\n";
        for (const json::value& snapshot : items(group.at("remove")))
            kept += json::serialize(snapshot) + "\n";
        all[json::serialize(group.at("tags")) + json::serialize(group.at("host")) +
            json::serialize(group.at("paths"))] = kept + oldest;
    }
    return all;
}

TEST_F(Forget, PoliciesKeepWhatResticKeeps)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    for (const char* time :
         {"2024-04-10T12:00:00+02:00", "2024-03-30T11:30:00+01:00", "2024-03-30T12:30:00+01:00",
          "2023-10-29T02:30:00+02:00", "2023-10-29T02:30:00+01:00", "2023-10-29T03:00:00+01:00"})
        Save("berlin", time);
    for (const char* time : {"2024-03-31T10:00:00Z", "2024-03-02T09:59:59Z", "2024-03-02T10:00:00Z",
                             "2024-03-02T10:00:00.000000001Z", "2020-12-31T23:00:00Z", "2021-01-03T23:59:59Z",
                             "2021-01-04T00:00:00Z", "2020-12-27T12:00:00Z", "2260-01-01T00:00:00Z"})
        Save("utc", time);
    for (const char* time : {"2024-05-01T23:30:00+09:00", "2024-05-02T00:30:00+09:00"})
        Save("mixed", time);
    std::mt19937 random(20241);
    const auto below = [&random](std::size_t limit) {
        return static_cast<std::size_t>(random() % limit);
    };
    const std::vector<std::string> tags[] = {{}, {"a"}, {"a", "b"}, {"a", "c"}};
    for (int i = 0; i < 60; ++i) {
        const auto second =
            static_cast<std::int64_t>(1609459200 + below(100000000) / (i % 3 == 0 ? 20u : 1u));
        const char* const hosts[] = {"berlin", "utc", "mixed", "elsewhere"};
        const std::size_t host = below(4);
        Timestamp time = host == 0 ? Timestamp::Local(second, 0) : Timestamp{second, 5, 0};
        if (host >= 2)
            time.offset = static_cast<std::int32_t>(below(5)) * 9000 - 18000;
        Save(hosts[host], time, tags[below(4)]);
    }
    std::vector<std::string> policies{
        "--keep-within 11d",
        "--keep-within 1m --keep-yearly 1",
        "--keep-within 12d1h --keep-within-weekly 5m11d",
        "-H 99999 --host berlin",
        "-w 4 -l 1 --host utc",
        "-d 2 --host mixed",
        "--keep-within-yearly 100y -g ,",
        "--keep-tag a,b --keep-tag c --keep-tag ,",
        "-l 3 -H 3 -d 4 -w 3 -m 5 -y 99999 -g paths,tags",
        "-m 3 --keep-within-hourly 3y --keep-within-daily 1y200d --tag a",
    };
    const char* const rules[] = {"last", "hourly", "daily", "weekly", "monthly", "yearly"};
    const char* const groups[] = {"host,paths", "host", "tags", ","};
    while (policies.size() < 46) {
        std::string policy = std::string("-g ") + groups[below(4)];
        const std::size_t first = below(6), end = first + 1 + below(3);
        for (std::size_t rule = first; rule < end; ++rule) {
            const std::string name = rules[rule % 6];
            if (below(2) == 0)
                policy += " --keep-" + name + "=" + std::to_string(1 + below(12));
            else
                policy += " --keep-within" + (name == "last" ? "" : "-" + name) + "=" +
                          std::to_string(below(3)) + "y" + std::to_string(below(14)) + "m" +
                          std::to_string(below(99)) + "d" + std::to_string(below(99)) + "h";
        }
        policies.push_back(policy + (below(4) == 0 ? " --keep-tag a" : ""));
    }
    for (const std::string& policy : policies) {
        SCOPED_TRACE(policy);
        const std::string common = "forget --dry-run --json --no-lock --path /x " + policy;
        const auto ours =
            DecisionsOf(Run(0, Replaced(common, "99999", "unlimited") + " --unsafe-allow-remove-all").output);
        ASSERT_EQ(ours, DecisionsOf(Restic(Replaced(common, " ,", " ''"))));
        EXPECT_FALSE(ours.empty());
    }
}

TEST_F(Forget, OldestStaysIfRuleHasNotHadItsNumber)
{
    for (const char* minute : {"00", "10", "20", "30"})
        Save("h", ("2024-05-01T12:" + std::string(minute) + ":00Z").c_str());
    const auto reasons = [this](const std::string& policy) {
        std::string all;
        const json::value groups = json::parse(Run(0, "forget -n --json " + policy).output);
        for (const json::value& reason : groups.at(0).at("reasons").as_array())
            all += json::serialize(reason.at("matches"));
        return all;
    };
    EXPECT_EQ(reasons("-H 2 -l 1"), R"(["last snapshot","hourly snapshot"]["oldest hourly snapshot"])");
    EXPECT_EQ(reasons("-H 1 -y -1"), R"(["hourly snapshot","yearly snapshot"]["oldest yearly snapshot"])");
    EXPECT_EQ(reasons("--keep-within-daily 1h"), R"(["daily within 1h"]["oldest daily within 1h"])");
    Save("h", "2024-05-01T11:00:00Z");
    EXPECT_EQ(reasons("--keep-within-daily 1h"), R"(["daily within 1h"])");
    // restic prints the same words; its tables have lines in addition.
    const std::vector<std::string> text = Words(Run(0, "forget --dry-run --keep-last 4 -g ,").output);
    const std::vector<std::string> first(text.begin(), text.begin() + 15);
    EXPECT_EQ(first, Words("Applying Policy: keep 4 latest snapshots keep 4 snapshots: ID Time Host Tags "
                           "Reasons Paths"));
    EXPECT_EQ(Count(), 5u);
}

TEST_F(Forget, RemovesOnlyWhatIsChosen)
{
    const Id a = Save("a", "2024-05-01T12:00:00Z"), b = Save("b", "2024-05-01T13:00:00Z");
    for (const char* wrong :
         {"", "-l 0", "-l x", "-l -2", "-l 99999999999", "--keep-within 1w", "--keep-within 3",
          "--keep-within d", "-l 1 -g x", "-l 1 --no-lock", "-l 1 latest", "--unsafe-allow-remove-all",
          "-l 1 --unsafe-allow-remove-all", "--unsafe-allow-remove-all --host a latest",
          "-l 1 --max-unused 0", "latest --repack-small"})
        Run(2, "forget " + std::string(wrong));
    const std::string planned = Run(0, "forget -n -l 1 -g , --tag , --keep-tag ,").output;
    EXPECT_EQ(Run(0, {"forget", "-n", "-l", "1", "-g", "", "--tag=", "--keep-tag", ""}).output, planned);
    EXPECT_EQ(Run(0, {"forget", "-n", "-l", "1", "--group-by=", "--tag", "", "--keep-tag="}).output, planned);
    EXPECT_TRUE(Holds(Run(1, "forget --keep-tag z").errors, "(host [a], paths [/a, /x])"));
    EXPECT_TRUE(Holds(Run(0, "forget --dry-run " + a.ToHex()).output, "{" + a.ToHex().substr(0, 8) + "}"));
    const std::string unknown(64, '0');
    EXPECT_TRUE(Holds(Run(0, "forget " + unknown).errors, "Ignoring '" + unknown + "'"));
    EXPECT_EQ(Count(), 2u);
    std::vector<Id> copies; // until two begin with the same digit
    while (copies.size() < 2 || copies.back().ToHex()[0] != copies.front().ToHex()[0])
        copies.push_back(Save("c", Timestamp{1700000000 + static_cast<std::int64_t>(copies.size()), 0, 0}));
    const std::string digit = copies.front().ToHex().substr(0, 1);
    EXPECT_TRUE(Holds(Run(3, "forget " + digit).errors, digit + ": Several snapshots begin with"));
    EXPECT_EQ(Count(), 2 + copies.size());
    Run(0, "forget -q --unsafe-allow-remove-all --host c");
    EXPECT_EQ(Count(), 2u);
    Run(0, "forget latest --host a");
    EXPECT_EQ(opened.ListIds(FileKind::Snapshot), std::vector<Id>{b});
    Save("b", "2024-05-01T12:00:00Z");
    EXPECT_EQ(Words(Run(0, "forget -l 1").output).back(), "snapshot");
    EXPECT_EQ(opened.ListIds(FileKind::Snapshot), std::vector<Id>{b});
    Run(0, "forget --unsafe-allow-remove-all --host b --json");
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(Run(0, "forget -l 1 --json").output, "[]\n");
    EXPECT_TRUE(Holds(Run(0, "forget -l 1 --host x").errors, "no snapshot matches --host 'x'"));
    EXPECT_TRUE(Files("locks").empty());
}

TEST_F(Forget, LockIsLeftOutOnlyIfNoneIsThere)
{
    const Id id = Save("a", "2024-05-01T12:00:00Z");
    Repo::Lock lock;
    lock.time = Timestamp::Now();
    lock.hostname = "elsewhere";
    const Id other = opened.SaveText(FileKind::Lock, lock.ToJson());
    Run(11, "forget " + id.ToHex());
    EXPECT_TRUE(Holds(Run(11, "forget --recover-no-free-space " + id.ToHex()).errors, " on elsewhere by "));
    Run(0, "forget --dry-run -l 1");
    opened.GetBackend().Remove({FileKind::Lock, other});
    const FileSizeLimit limit(100); // as on a file system that is full
    for (const std::string& command : {"forget " + id.ToHex(), std::string("prune")})
        EXPECT_TRUE(Holds(Run(1, command).errors, "but --recover-no-free-space removes without a lock"));
    EXPECT_EQ(Count(), 1u);
    Run(0, "forget --recover-no-free-space " + id.ToHex());
    EXPECT_EQ(Count(), 0u);
}

TEST_F(Forget, OtherRemovalsGoOnAfterFailure)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root";
    const Id first = Save("a", "2024-05-01T12:00:00Z"), second = Save("a", "2024-05-01T13:00:00Z");
    Save("a", "2024-05-01T14:00:00Z");
    chmod(directory.Path().c_str(), 0755);
    const std::string all = "chmod -R a+rwX " + repository + " && chmod a+t " + repository + "/snapshots";
    ASSERT_EQ(std::system(all.c_str()), 0);
    const std::string path = repository + "/" + Repo::FileName{FileKind::Snapshot, second}.Path();
    ASSERT_EQ(chown(path.c_str(), OrdinaryUser, OrdinaryUser), 0);
    const ProgramResult result = Run(3, {"forget", "-l", "1"}, {.user = OrdinaryUser});
    EXPECT_TRUE(Holds(result.errors, "snapshots/" + first.ToHex()));
    EXPECT_TRUE(Holds(result.output, "removed 1 of 2 snapshots"));
    EXPECT_EQ(Count(), 2u);
}

} // namespace
