// restore TARGET [CONTENT] <RECORD: recreates the file or directory of a Unix record below a directory.
// Learn: GetSanitizedNewPath computes the path of an entry below a new root; a YFile opened for writing
// creates it, and sets its times when it is closed. These operations use paths, for a tree that no other user
// writes to.
#include "Backup/File/Unix/YFile.h"
#include "Backup/File/YUnixFileMetadata.h"
#include "Krt/Exception/YError.h"
#include "Krt/JSON/YValue.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

using Backup::YJobPath;
using Backup::File::YFile;

int main(int argc, char** argv)
{
    if (argc != 2 && argc != 3) {
        std::cerr << "Usage: restore TARGET [CONTENT] <RECORD\n";
        return 2;
    }
    try {
        const std::string text{std::istreambuf_iterator<char>(std::cin), {}};
        const auto json = Krt::JSON::YValue::Parse(text);
        const auto record = Backup::File::YMetadataBase::ConstructFromJson(json->AsObject());
        if (record->GetMetadataType() != Backup::File::VAM_UNIX_METADATA_TYPE) {
            std::cerr << "This example knows Unix records alone\n";
            return 1;
        }
        const auto& metadata = record->AsUnixFileMetadata();

        const YJobPath top = YJobPath::FromFilePath(YJobPath(), argv[1], true);
        const YJobPath path = record->GetSanitizedNewPath(record->GetFilePath(0), YJobPath(), top);
        const bool isDirectory = metadata.IsDirectoryForRestore();
        YFile file(YFile::OPEN_MODE_WRITE, path.GetFilesystemPortion(),
                   isDirectory ? YFile::OPT_DIRECTORY : YFile::OPT_NONE);
        if (argc == 3) {
            std::ifstream content(argv[2], std::ios::binary);
            char buffer[65536];
            while (content.read(buffer, sizeof buffer), content.gcount() > 0)
                file.Write(buffer, static_cast<unsigned int>(content.gcount()));
        }
        file.SetUID(metadata.GetUserId());
        file.SetGID(metadata.GetGroupId());
        file.SetModeFlags(metadata.GetModeFlags());
        file.SetTime(metadata.GetLastAccessTime(), metadata.GetLastWriteTime());
        file.Close();
        std::cout << path.GetFilesystemPortion() << "\n";
    } catch (const Krt::Exception::YError& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
}
