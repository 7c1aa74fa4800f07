// Backups, restores, certificates and services while each call and each allocation fails in its turn.
#include "agent/Cli/Program.h"
#include "agent/Repository/LocalBackend.h"
#include "agent/Repository/Repository.h"

#include "Backup/Core/OpenSSL.h"

#include "testing/Configuration.h"
#include "testing/Faults.h"
#include "testing/Raises.h"
#include "testing/SelectionText.h"
#include "testing/Services.h"
#include "testing/StoreFiles.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Tree.h"
#include "testing/TrustScene.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace Testing;
using Backup::OpenSSL::IsCertificateTrusted;
namespace fs = std::filesystem;

namespace {

class AgentFaults : public ::testing::Test
{
protected:
    AgentFaults()
    {
        MakeTree(directory.MakeDirectory("source"),
                 {Dir("d"), File("d/small", "small"), File("d/same", "small"),
                  File("large", std::string(200000, 'l')), Hard("hard", "large"), Link("link", "d/small"),
                  Fifo("fifo")});
        source = directory / "source";
        store = directory / "store";
    }

    // Under faults; the exit code.
    int Run(Faults& faults, std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), "kbagent");
        std::vector<char*> vector;
        for (std::string& argument : arguments)
            vector.push_back(argument.data());
        vector.push_back(nullptr);
        int exitCode = -1;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        faults.Try([&] {
            exitCode = Agent::Run(static_cast<int>(arguments.size()), vector.data());
            return exitCode == 0;
        });
        const std::string errors = testing::internal::GetCapturedStderr();
        testing::internal::GetCapturedStdout();
        if (const int error = faults.StruckError(); error != 0 && exitCode != 0) {
            EXPECT_NE(errors.find(std::strerror(error)), std::string::npos) << errors;
        }
        EXPECT_NE(exitCode, -1) << "the program ended by an exception";
        return exitCode;
    }
    // Everything that the store names can be read and is right; returns the number of snapshots.
    std::size_t CheckStore() const
    {
        if (!fs::exists(store + "/kbagent-store"))
            return 0;
        const Agent::Store opened = Agent::Store::Open(store);
        const std::vector<std::string> ids = opened.ListSnapshots();
        for (const std::string& id : ids) {
            Agent::SnapshotReader reader(opened, id);
            reader.Verify();
            for (Agent::SnapshotEntry entry; reader.Next(entry);) {
                if (!entry.content)
                    continue;
                const auto record = Backup::File::YMetadataBase::ConstructFromJson(entry.record);
                const std::string path = record->GetFilePath(0).GetFilesystemPortion().Bytes();
                EXPECT_EQ(ReadObject(opened, *entry.content, fs::file_size(path)), ReadFile(path)) << path;
            }
        }
        return ids.size();
    }
    // A backup of `entries` entries into a store of `before` snapshots.
    void CheckBackup(Faults& faults, std::vector<std::string> what, std::size_t entries,
                     std::size_t before) const
    {
        what.insert(what.begin(), {"backup", "--store", store});
        const int exitCode = Run(faults, what);
        const std::size_t snapshots = CheckStore();
        EXPECT_GE(snapshots, before + (exitCode == 0 || exitCode == 3));
        if (exitCode == 0) {
            EXPECT_EQ(StoredPaths(store, source).size(), entries);
        }
        if (!faults.CouldCleanUp() || !fs::exists(store + "/tmp"))
            return;
        for (const fs::directory_entry& entry : fs::directory_iterator(store + "/tmp"))
            EXPECT_EQ(entry.path().filename(), Abandoned); // which a later run removes
    }

    const std::string Abandoned = "0123456789abcdef.7";
    const TemporaryDirectory directory;
    const NoConfiguration configuration;
    std::string source;
    std::string store;
};

TEST_F(AgentFaults, BackupIntoNewStore)
{
    const std::string rules = "include " + directory.Path() + " exact=source explicit; include " + source;
    const std::string job = directory.Write("job", JobText(rules + " recursive any"));
    CheckWithFaults([&](Faults& faults) {
        fs::remove_all(store);
        CheckBackup(faults, {"--job", job}, 8, 0);
    });
}

TEST_F(AgentFaults, BackupIntoExistingStore)
{
    Faults none;
    CheckBackup(none, {source + "/d"}, 3, 0);
    const std::string before = directory / "before";
    fs::rename(store, before);
    CheckWithFaults([&](Faults& faults) {
        fs::remove_all(store);
        fs::copy(before, store, fs::copy_options::recursive);
        directory.Write("store/tmp/" + Abandoned, "left by a run that crashed");
        CheckBackup(faults, {source}, 8, 1);
    });
}

class RepositoryFaults : public AgentFaults
{
protected:
    static Agent::Repo::Secret Password(std::string_view text)
    {
        return Agent::Repo::Secret(Agent::Repo::AsBytes(text));
    }
    std::shared_ptr<Agent::Repo::IBackend> Backend() const
    {
        return std::make_shared<Agent::Repo::LocalBackend>(store.c_str());
    }
    Agent::Repo::Repository Create(std::string_view password) const
    {
        Agent::Repo::CreateOptions options;
        options.cost = {16, 1, 1};
        return Agent::Repo::Repository::Create(Backend(), Password(password), options);
    }
    bool IsOpenedBy(std::string_view password) const
    {
        return !CatchError([&] { Agent::Repo::Repository::Open(Backend(), Password(password)); });
    }
    std::size_t CountKeys() const
    {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(store + "/keys"), fs::directory_iterator()));
    }
};

TEST_F(RepositoryFaults, AFailedCreationCanBeRepeated)
{
    Backend()->Prepare(); // here, since its 256 directories take much time in each run
    CheckWithFaults([&](Faults& faults) {
        fs::remove(store + "/config");
        for (const fs::directory_entry& key : fs::directory_iterator(store + "/keys"))
            fs::remove(key);
        if (!faults.TryAll([&] { Create("first"); }) && faults.CouldCleanUp())
            Create("first");
        if (faults.CouldCleanUp()) {
            EXPECT_TRUE(IsOpenedBy("first"));
            EXPECT_EQ(CountKeys(), 1u);
        }
    });
}

TEST_F(RepositoryFaults, AKeyIsReplacedOrRemains)
{
    Create("first");
    const std::string before = directory / "before";
    fs::rename(store, before);
    CheckWithFaults([&](Faults& faults) {
        fs::remove_all(store);
        fs::copy(before, store, fs::copy_options::recursive);
        auto repository = Agent::Repo::Repository::Open(Backend(), Password("first"));
        Agent::Repo::KeyOptions options;
        options.cost = {16, 1, 1};
        const bool isDone = faults.TryAll([&] { repository.ReplaceKey(Password("second"), options); });
        EXPECT_TRUE(IsOpenedBy("second") || (!isDone && IsOpenedBy("first")));
        if (isDone) {
            EXPECT_EQ(CountKeys(), 1u);
        }
    });
}

TEST_F(AgentFaults, Restore)
{
    // Not every user may create a device or such an attribute, nor every file system store it.
    MakeTree(source, {File("hole", "h" + std::string(100000, '\0'))});
    const bool hasDevice = mknod((source + "/device").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0;
    for (const char* const name : {"/large", "/d"})
        setxattr((source + name).c_str(), "user.test", "value", 5, 0);
    lsetxattr((source + "/link").c_str(), "trusted.test", "value", 5, 0);
    Faults none;
    CheckBackup(none, {source}, hasDevice ? 10 : 9, 0);
    const std::string target = directory / "target", restored = target + source;
    const std::string right = DescribeTree(source);
    CheckWithFaults([&](Faults& faults) {
        chmod((restored + "/d").c_str(), 0700);
        fs::remove_all(target);
        directory.Write("target" + source + "/large", "old");
        mkdir((restored + "/d").c_str(), 0500); // closed to its owner
        const int exitCode = Run(faults, {"restore", "--store", store, "--to", target});
        if (exitCode == 0) {
            EXPECT_EQ(DescribeTree(restored), right);
        }
        const std::string large = ReadFile(restored + "/large");
        EXPECT_TRUE(large == "old" || large == std::string(200000, 'l')) << large.size();
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(restored)) {
            const std::string name = entry.path().filename();
            EXPECT_FALSE(name.starts_with(".kbagent") && faults.CouldCleanUp()) << name;
            if (name == "small" || name == "same") {
                EXPECT_EQ(ReadFile(entry.path()), "small");
            }
        }
    });
}

TEST_F(AgentFaults, CertificateTrust)
{
    Trust::Scene scene;
    ASSERT_TRUE(scene.Judge());
    scene.options.anchors.clear();
    scene.options.anchorFiles.push_back(directory.Write("root.pem", scene.root->Pem()).c_str());
    Trust::Scene revoking = scene;
    Trust::Lists({{Trust::Root}, {Trust::Middle, {Trust::Server}}})(revoking);
    revoking.present(revoking);
    CheckWithFaults([&](Faults& faults) {
        // New for each run: a string keeps the memory of a longer text that was assigned before.
        Backup::OpenSSL::TrustReport report;
        const auto judge = [&](const Trust::Scene& judged, const char* host = Trust::Scene::Host) {
            return IsCertificateTrusted(judged.sent, judged.chain, host, judged.options, &report);
        };
        bool isTrusted = false, isOther = false, isRevoked = false;
        const bool isDone = faults.TryAll([&] {
            isOther = judge(scene, "other.example");
            isRevoked = judge(revoking);
            isTrusted = judge(scene);
        });
        EXPECT_FALSE(isOther);
        EXPECT_FALSE(isRevoked);
        if (isDone && !isTrusted) {
            EXPECT_FALSE(report.reason.IsEmpty()); // without memory OpenSSL may reject a valid certificate
        }
    });
}

TEST_F(AgentFaults, SystemdService)
{
    const std::string right = ReadFile(GOLDEN_DIRECTORY "/kbagent.service");
    SystemdServices services;
    CheckWithFaults([&](Faults& faults) {
        fs::remove_all(services.folder);
        services.directory.Write("etc/systemd/system/kbagent.service", "former");
        const bool isDone = faults.TryAll([&] {
            services.manager->Install("kbagent", "Agent", "100% backup\nof it", "/opt/kb agent$%",
                                      {"a", "$b"}, Krt::Time::YDuration::Zero());
        });
        const std::string text = ReadFile(services.file);
        EXPECT_TRUE(text == right || (text == "former" && !isDone)) << text;
        if (faults.CouldCleanUp()) {
            EXPECT_EQ(std::distance(fs::directory_iterator(services.folder), {}), 1);
        }
    });
}

TEST_F(AgentFaults, LaunchdService)
{
    LaunchdServices services;
    CheckWithFaults([&](Faults& faults) {
        fs::remove_all(services.temporary);
        fs::create_directory(services.temporary);
        services.programs.lines.clear();
        if (faults.TryAll([&] {
                services.manager->Install("kbagent", "", "", "/usr/local/bin/kbagent", {},
                                          Krt::Time::YDuration::Zero());
            })) {
            EXPECT_EQ(ReadFile(fs::directory_iterator(services.temporary)->path()),
                      ReadFile(GOLDEN_DIRECTORY "/kbagent.plist"));
            EXPECT_EQ(std::ranges::count(services.programs.lines, '\n'), 1);
        }
    });
}

} // namespace
