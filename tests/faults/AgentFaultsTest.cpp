// Backups, restores, certificates and services while each call and each allocation fails in its turn.
#include "agent/Cli/Program.h"

#include "Backup/Core/OpenSSL.h"

#include "testing/Configuration.h"
#include "testing/Faults.h"
#include "testing/Raises.h"
#include "testing/RepositoryFixture.h"
#include "testing/SelectionText.h"
#include "testing/Services.h"
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
        repository = directory / "repository";
    }

    // Under faults; the exit code.
    int Run(Faults& faults, std::vector<std::string> arguments) const
    {
        setenv("KBAGENT_PASSWORD", "secret", 1); // which the program removes
        arguments.insert(arguments.begin(), "kbagent");
        arguments.insert(arguments.end(), {"-r", repository});
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
    // Everything that the repository names can be read and is right; returns the number of snapshots.
    std::size_t CheckRepository() const
    {
        const Agent::Repo::Repository opened = OpenRepository(repository, "secret");
        const std::vector<Agent::Repo::StoredSnapshot> snapshots = opened.LoadSnapshots();
        for (const Agent::Repo::StoredSnapshot& stored : snapshots) {
            const auto check = [&](const std::string& path, Agent::Repo::Node& node) {
                std::string content;
                Agent::Repo::Bytes blob;
                for (const Agent::Repo::Id& id : node.content.value_or(std::vector<Agent::Repo::Id>())) {
                    opened.LoadBlob({Agent::Repo::BlobType::Data, id}, blob);
                    content += Agent::Repo::AsText(blob);
                }
                EXPECT_TRUE(node.type != Agent::Repo::NodeType::File || content == ReadFile(path)) << path;
                return Agent::Step::Into;
            };
            Agent::WalkTree(
                opened, stored.snapshot.tree, "", check,
                [](const std::string& path, const Krt::Exception::YError&) { ADD_FAILURE() << path; });
        }
        return snapshots.size();
    }

    const TemporaryDirectory directory;
    const NoConfiguration configuration;
    std::string source;
    std::string repository;
};

TEST_F(AgentFaults, Backup)
{
    const std::string rules = "include " + directory.Path() + " exact=source explicit; include " + source;
    const std::string job = directory.Write("job", JobText(rules + " recursive any"));
    CreateRepository(repository, "secret");
    Faults none;
    EXPECT_EQ(Run(none, {"backup", source + "/d"}), 0);
    const auto before = FilesBelow(repository);
    CheckWithFaults([&](Faults& faults) {
        for (const fs::path& file : FilesBelow(repository)) {
            if (!std::binary_search(before.begin(), before.end(), file))
                fs::remove(file);
        }
        const int exitCode = Run(faults, {"backup", "--job", job});
        EXPECT_GE(CheckRepository(), exitCode == 0 || exitCode == 3 ? 2u : 1u);
        if (exitCode == 0) {
            EXPECT_EQ(StoredPaths(OpenRepository(repository, "secret"), source).size(), 7u);
        }
        for (const fs::path& file : FilesBelow(repository)) {
            const bool isLeft =
                file.string().find("-tmp-") != std::string::npos || file.parent_path().filename() == "locks";
            EXPECT_FALSE(isLeft && faults.CouldCleanUp() && faults.HadMemory()) << file;
        }
    });
}

TEST_F(AgentFaults, Prune)
{
    CreateRepository(repository, "secret");
    Faults none;
    EXPECT_EQ(Run(none, {"backup", source}), 0);
    EXPECT_EQ(Run(none, {"backup", source + "/d"}), 0); // of whose data the pack has more
    const std::string before = directory / "before";
    fs::rename(repository, before);
    CheckWithFaults([&](Faults& faults) {
        fs::remove_all(repository);
        fs::copy(before, repository, fs::copy_options::recursive);
        const int exitCode =
            Run(faults, {"forget", "-g", ",", "--keep-last", "1", "--prune", "--max-unused", "0"});
        EXPECT_TRUE(CheckRepository() == 1 || exitCode != 0);
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
        return std::make_shared<Agent::Repo::LocalBackend>(repository.c_str());
    }
    bool IsOpenedBy(std::string_view password) const
    {
        return !CatchError([&] { Agent::Repo::Repository::Open(Backend(), Password(password)); });
    }
    std::size_t CountKeys() const
    {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(repository + "/keys"), fs::directory_iterator()));
    }
};

TEST_F(RepositoryFaults, AFailedCreationCanBeRepeated)
{
    Backend()->Prepare(); // here, since its 256 directories take much time in each run
    CheckWithFaults([&](Faults& faults) {
        fs::remove(repository + "/config");
        for (const fs::directory_entry& key : fs::directory_iterator(repository + "/keys"))
            fs::remove(key);
        const bool isDone = faults.TryAll([&] { CreateRepository(repository, "first"); });
        const bool canBeRepeated = faults.CouldCleanUp() && faults.HadMemory();
        if (!isDone && canBeRepeated)
            CreateRepository(repository, "first");
        if (isDone || canBeRepeated) {
            EXPECT_TRUE(IsOpenedBy("first"));
            EXPECT_EQ(CountKeys(), 1u);
        }
    });
}

TEST_F(RepositoryFaults, AKeyIsReplacedOrRemains)
{
    CreateRepository(repository, "first");
    const std::string before = directory / "before";
    fs::rename(repository, before);
    CheckWithFaults([&](Faults& faults) {
        fs::remove_all(repository);
        fs::copy(before, repository, fs::copy_options::recursive);
        auto opened = Agent::Repo::Repository::Open(Backend(), Password("first"));
        Agent::Repo::KeyOptions options;
        options.cost = {16, 1, 1};
        const bool isDone = faults.TryAll([&] { opened.ReplaceKey(Password("second"), options); });
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
    mknod((source + "/device").c_str(), S_IFCHR | 0600, makedev(1, 3));
    for (const char* const name : {"/large", "/d"})
        setxattr((source + name).c_str(), "user.test", "value", 5, 0);
    lsetxattr((source + "/link").c_str(), "trusted.test", "value", 5, 0);
    Faults none;
    CreateRepository(repository, "secret");
    EXPECT_EQ(Run(none, {"backup", source}), 0);
    const std::string target = directory / "target", restored = target + source;
    const std::string right = DescribeTree(source);
    CheckWithFaults([&](Faults& faults) {
        chmod((restored + "/d").c_str(), 0700);
        fs::remove_all(target);
        directory.Write("target" + source + "/large", "old");
        mkdir((restored + "/d").c_str(), 0500); // closed to its owner
        const int exitCode = Run(faults, {"restore", "--no-lock", "latest", "--target", target});
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
