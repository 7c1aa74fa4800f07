// Backups, restores, certificates and services while each call and each allocation fails in its turn.
#include "agent/Cli/Program.h"

#include "Backup/Core/OpenSSL.h"
#include "Backup/Util/Unix/Linux/YSystemdServiceManager.h"
#include "Backup/Util/Unix/Mac/YMacServiceManager.h"

#include "testing/CertificateAuthority.h"
#include "testing/Faults.h"
#include "testing/NoConfiguration.h"
#include "testing/ProcessRecorder.h"
#include "testing/StoreFiles.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Tree.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace Testing;
using Backup::OpenSSL::IsCertificateTrusted;
using Backup::OpenSSL::TrustOptions;
namespace fs = std::filesystem;

namespace {

// Lets what the program says vanish.
class Silence
{
public:
    Silence()
    {
        std::fflush(stdout);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }
    ~Silence()
    {
        std::fflush(stdout);
        dup2(m_output, STDOUT_FILENO);
        dup2(m_errors, STDERR_FILENO);
        close(m_output);
        close(m_errors);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

private:
    const int m_output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    const int m_errors = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
};

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
        const Silence silence;
        faults.Try([&] {
            exitCode = Agent::Run(static_cast<int>(arguments.size()), vector.data());
            return exitCode == 0;
        });
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
    // A backup of so many entries beside earlier snapshots.
    void CheckBackup(Faults& faults, const std::string& root, std::size_t entries, std::size_t before) const
    {
        const int exitCode = Run(faults, {"backup", "--store", store, root});
        const std::size_t snapshots = CheckStore();
        EXPECT_GE(snapshots, before + (exitCode == 0 || exitCode == 3));
        if (exitCode == 0) {
            EXPECT_EQ(StoredPaths(store, root).size(), entries);
        }
        if (!faults.CouldCleanUp() || !fs::exists(store + "/tmp"))
            return;
        for (const fs::directory_entry& entry : fs::directory_iterator(store + "/tmp"))
            EXPECT_EQ(entry.path().filename(), Abandoned); // which a later run removes
    }

    const std::string Abandoned = "0123456789abcdef.7";
    const TemporaryDirectory directory;
    const NoConfiguration configuration{directory};
    std::string source;
    std::string store;
};

TEST_F(AgentFaults, BackupIntoANewStore)
{
    CheckWithFaults([&](Faults& faults) {
        fs::remove_all(store);
        CheckBackup(faults, source, 8, 0);
    });
}

TEST_F(AgentFaults, BackupIntoAStore)
{
    Faults none;
    CheckBackup(none, source + "/d", 3, 0);
    const std::string before = directory / "before";
    fs::rename(store, before);
    CheckWithFaults([&](Faults& faults) {
        fs::remove_all(store);
        fs::copy(before, store, fs::copy_options::recursive);
        directory.Write("store/tmp/" + Abandoned, "left by a run that crashed");
        CheckBackup(faults, source, 8, 1);
    });
}

TEST_F(AgentFaults, Restore)
{
    // Not everybody may make a device or such an attribute, and not everywhere.
    MakeTree(source, {File("hole", "h" + std::string(100000, '\0'))});
    const bool hasDevice = mknod((source + "/device").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0;
    for (const char* const name : {"/large", "/d"})
        setxattr((source + name).c_str(), "user.test", "value", 5, 0);
    lsetxattr((source + "/link").c_str(), "trusted.test", "value", 5, 0);
    Faults none;
    CheckBackup(none, source, hasDevice ? 10 : 9, 0);
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
    constexpr const char* Host = "backup.example";
    const Certificate root = Certificate::SelfSigned(AuthorityForm("Root"));
    const Certificate middle = root.Issue(AuthorityForm("Middle")), server = middle.Issue(ServerForm(Host));
    TrustOptions options;
    options.anchorFiles.push_back(directory.Write("root.pem", root.Pem()).c_str());
    options.time = JudgementTime;
    const std::vector<std::string> chain{middle.Pem()};
    const std::string shown = server.Pem();
    TrustOptions revoking = options;
    revoking.revocationLists = {root.RevocationList({}), middle.RevocationList({server})};
    CheckWithFaults([&](Faults& faults) {
        Backup::OpenSSL::TrustReport report;
        bool isTrusted = false, isOther = false, isRevoked = false;
        const bool isDone = faults.TryAll([&] {
            isTrusted = IsCertificateTrusted(shown, chain, Host, options, &report);
            isOther = IsCertificateTrusted(shown, chain, "other.example", options);
            isRevoked = IsCertificateTrusted(shown, chain, Host, revoking);
        });
        EXPECT_FALSE(isOther);
        EXPECT_FALSE(isRevoked);
        if (isDone && !isTrusted) {
            EXPECT_FALSE(report.reason.IsEmpty()); // without memory OpenSSL may find fault with what is right
        }
    });
}

TEST_F(AgentFaults, SystemdService)
{
    directory.MakeDirectory("run/systemd/system");
    const std::string unit = directory / "etc/systemd/system/kbagent.service";
    Backup::Util::YSystemdServiceManager::SetRootForTesting(directory.Path().c_str());
    std::string right;
    CheckWithFaults([&](Faults& faults) {
        fs::remove_all(directory / "etc");
        directory.Write("etc/systemd/system/kbagent.service", "former");
        const ProcessRecorder programs;
        const bool isDone = faults.TryAll([&] {
            Backup::Util::YSystemdServiceManager().Install("kbagent", "A title", "", "/bin/a program",
                                                           {"a", "b"}, Krt::Time::YDuration::Zero());
        });
        const std::string text = ReadFile(unit);
        if (right.empty())
            right = text;
        EXPECT_TRUE(text == right || (text == "former" && !isDone));
        if (faults.CouldCleanUp()) {
            EXPECT_EQ(std::distance(fs::directory_iterator(directory / "etc/systemd/system"), {}), 1);
        }
    });
    Backup::Util::YSystemdServiceManager::SetRootForTesting(nullptr);
}

TEST_F(AgentFaults, LaunchdService)
{
    setenv("TMPDIR", (directory / "lists").c_str(), 1);
    CheckWithFaults([&](Faults& faults) {
        fs::remove_all(directory / "lists");
        directory.MakeDirectory("lists");
        const ProcessRecorder programs;
        if (faults.TryAll([&] {
                Backup::Util::YMacServiceManager().Install("kbagent", "", "", "/bin/a program", {},
                                                           Krt::Time::YDuration::Zero());
            })) {
            const std::string list = ReadFile(fs::directory_iterator(directory / "lists")->path());
            EXPECT_TRUE(list.ends_with("</plist>\n") && list.find("/bin/a program") != std::string::npos)
                << list;
            EXPECT_EQ(programs.commands.size(), 1u);
        }
    });
    unsetenv("TMPDIR");
}

} // namespace
