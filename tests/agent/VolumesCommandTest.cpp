// Checks what the volumes command reports of each mount, and that its table fits a terminal.
#include "agent/Cli/TextTable.h"
#include "agent/Cli/VolumeList.h"
#include "agent/Run/AnswerWithin.h"

#include "testing/MountNamespace.h"
#include "testing/MountTable.h"
#include "testing/Program.h"
#include "testing/Raises.h"

#include "Backup/Volume/Unix/Util.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YValue.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Agent;
using Krt::ErrorCode;

TEST(VolumesCommand, EachMountIsListedWithKnownValues)
{
    if (!Backup::Volume::IsMountPoint("/proc"))
        GTEST_SKIP() << "/proc is not mounted here";
    const Testing::TemporaryDirectory directory;
    const std::string ordinary = directory.MakeDirectory("a b");
    const std::string base = directory.Path();
    const Testing::MountTable table("/dev/root / ext4 rw 0 0\n"
                                    "systemd /proc autofs rw 0 0\n"
                                    "server:/x /proc nfs ro 0 0\n" +
                                    ("trigger " + base + " autofs rw 0 0\n") + "/dev/root " + base +
                                    "/a\\040b ext4 ro 0 0\n"
                                    "/dev/gone /no/such\\012path hfs rw 0 0\n");
    std::vector<std::string> listed;
    for (const ListedVolume& volume : ListVolumes(std::chrono::minutes(5)))
        listed.push_back(std::to_string(volume.driveClass) + " " + volume.mount.directory.Bytes() +
                         (volume.mount.readOnly ? ", read-only" : "") + (volume.isHidden ? ", hidden" : "") +
                         (volume.freeSpace ? ", has space" : "") +
                         (volume.isEntered ? (*volume.isEntered ? ", entered" : ", not entered") : "") +
                         (volume.failure ? ": " + volume.failure->Bytes() : ""));
    EXPECT_EQ(listed,
              (std::vector<std::string>{
                  "3 /, has space, entered",
                  "4 /proc, hidden",
                  "4 /proc, read-only, has space, not entered",
                  "4 " + directory.Path() + ", entered",               // an automounter's
                  "3 " + ordinary + ", read-only, has space, entered", // on the device above it
                  "3 /no/such\npath: Failed to get attributes of: /no/such\npath: No such file or directory",
              }));
    table.Remove();
    EXPECT_RAISES(ListVolumes(std::chrono::seconds(1)), ErrorCode::NotFound, "ListVolumes",
                  "The table of mounts can't be read");
}

TEST(AnswerWithin, BlockedCallTimesOut)
{
    using std::chrono::milliseconds;
    const auto latch = std::make_shared<std::promise<void>>();
    const std::function<int()> blocked = [latch] {
        return latch->get_future().wait(), 1;
    };
    EXPECT_EQ(AnswerWithin<int>(milliseconds(1), blocked), std::nullopt);
    latch->set_value();
    EXPECT_THROW(
        AnswerWithin<int>(std::chrono::minutes(5), []() -> int { KRT_RAISE(ErrorCode::NotFound, "x"); }),
        Krt::Exception::YError);
}

TEST(VolumesCommand, DeadServerAndMountBelowAreReported)
{
    Testing::MountNamespace::Run([](const Testing::MountNamespace& space) {
        const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
        if (device < 0)
            throw Testing::Unavailable("/dev/fuse can't be opened");
        // A file system whose server never answers is mounted over the parent directory of the other one.
        space.Mount("memory", space / "dead/below", "tmpfs");
        space.Mount("silent", space / "dead", "fuse", 0,
                    "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0");
        unsigned int found = 0;
        for (const ListedVolume& volume : ListVolumes(std::chrono::milliseconds(200))) {
            if (volume.mount.source == "silent" || volume.mount.source == "memory") {
                EXPECT_EQ(volume.failure.value_or("").Bytes(), "The file system does not answer");
                ++found;
            }
        }
        EXPECT_EQ(found, 2u);
        close(device); // calls that still wait then fail
    });
}

TEST(TextTable, WideCellsAreCutToWidth)
{
    const std::vector<TextColumn> columns{{.title = "SIZE", .alignsRight = true},
                                          {.title = "NAME", .mayBeCut = true},
                                          {.title = "PATH", .mayBeCut = true}};
    const std::vector<TextRow> rows{{"12345", "/dev/caf\u00e9-and-more", "/mnt/somewhere/else"},
                                    {"1", "x", "/"}};
    const std::pair<unsigned int, const char*> cases[] = {
        {0, " SIZE  NAME                PATH\n"
            "12345  /dev/caf\u00e9-and-more  /mnt/somewhere/else\n"
            "    1  x                   /\n"},
        {35, " SIZE  NAME           PATH\n"
             "12345  /dev/caf\u00e9-an\u2026  /mnt/somewhe\u2026\n"
             "    1  x              /\n"},
        {1, " SIZE  NAME      PATH\n"
            "12345  /dev/ca\u2026  /mnt/so\u2026\n"
            "    1  x         /\n"},
    };
    for (const auto& [width, expected] : cases)
        EXPECT_EQ(TableText(columns, rows, width), expected) << width;
}

TEST(VolumesCommand, TableAndDocumentListSameMounts)
{
    const Testing::ProgramResult text = Testing::RunProgram({"volumes"});
    const Testing::ProgramResult json = Testing::RunProgram({"volumes", "--json"});
    // On some machines the mount of another user can't be examined.
    EXPECT_EQ(text.exitCode, text.errors.empty() ? 0 : 3) << text.errors;
    const auto document = Krt::JSON::YValue::Parse(json.output);
    const auto& volumes = document->AsObject().Get<Krt::JSON::YArray>("volumes", Krt::MessageType::General);
    EXPECT_EQ(static_cast<std::size_t>(std::ranges::count(text.output, '\n')), volumes.size() + 1);
    const bool hasRoot = std::ranges::any_of(volumes, [](const auto& volume) {
        const Krt::JSON::YObject& object = volume->AsObject();
        return object.Find("mount_path", 0)->AsString() == "/" && object.Find("entered", 0)->AsBool() &&
               object.FindOpt("free_bytes")->IsNumber();
    });
    // A changed root need not be a mount.
    EXPECT_EQ(hasRoot, Testing::ReadFile("/proc/self/mounts").find(" / ") != std::string::npos)
        << json.output;
}

TEST(VolumesCommand, LinesFitTerminal)
{
    const winsize size{.ws_row = 24, .ws_col = 62, .ws_xpixel = 0, .ws_ypixel = 0};
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, &size);
    if (child < 0)
        GTEST_SKIP() << "no terminals are mounted here";
    if (child == 0) {
        execl(KBAGENT_PROGRAM, "kbagent", "volumes", nullptr);
        _exit(127);
    }
    std::FILE* const shown = fdopen(terminal, "r");
    char line[4096] = "";
    ASSERT_TRUE(std::fgets(line, sizeof line, shown) != nullptr && std::string(line).starts_with("CLASS"))
        << line;
    while (std::fgets(line, sizeof line, shown) != nullptr && !std::string(line).starts_with("kbagent: "))
        EXPECT_LE(Krt::YString(line).Length(), 62u + 2) << line; // the line's end counts
    std::fclose(shown);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}
