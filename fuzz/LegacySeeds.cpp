// Writes the seeds of the legacy headers: `LegacySeeds fuzz/corpus`. They are checked in; this is how they
// came about.
#include "testing/LegacyHeaderBuilder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

using namespace std::string_literals;

namespace {

std::filesystem::path corpus;

void Write(const char* name, const std::string& bytes)
{
    std::ofstream file(corpus / name, std::ios::binary);
    if (!file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush()) {
        std::perror(name);
        std::exit(1);
    }
}

Testing::LegacyUnixHeader UnixDirectory()
{
    Testing::LegacyUnixHeader header;
    header.attributes = 0x10;
    header.modeFlags = 0040755;
    header.names = "/home/\xC3\xA4\0"s;
    header.trailing = Testing::LegacyAttributeRecord("n\xFF", "v") + "\x08\0"s;
    return header;
}

Testing::LegacyWindowsHeader WindowsDirectory(const std::wstring& path)
{
    Testing::LegacyWindowsHeader header = Testing::SampleWindowsFile(path + L"\0\r\n"s, 1);
    header.attributes = 0x10;
    return header;
}

} // namespace

int main(int, char** argv)
{
    corpus = argv[1];
    Write("LegacyUnixHeader/file", Testing::SampleUnixFile().Bytes());
    Write("LegacyUnixHeader/link", Testing::SampleUnixLink().Bytes());
    Write("LegacyUnixHeader/directory-with-a-cut-record", UnixDirectory().Bytes());
    Write("LegacyWinHeader/two-paths",
          Testing::SampleWindowsFile(L"C:\\dir\\long \xD83D\xDCBE*LONG~1\0\rC:/other\0\r"s, 2).Bytes());
    Write("LegacyWinHeader/volume-guid", WindowsDirectory(L"\\\\?\\Volume{0a}\\dir*D").Bytes());
    Write("LegacyWinHeader/shadow-copy",
          WindowsDirectory(L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy7\\dir/f").Bytes());
    return 0;
}
