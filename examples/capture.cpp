// capture FILE [CONTENT]: prints a file's metadata as a line of JSON, and copies its content to a file.
// Learn: YFile reads the status once; the mapper converts each path to a job path; a record converts itself
// to JSON; Read returns 0 at the end. Every failure is a YError.
#include "Backup/File/Unix/YFile.h"
#include "Backup/File/YMetadataBase.h"
#include "Krt/Exception/YError.h"
#include "Krt/JSON/YValue.h"

#include <fstream>
#include <iostream>

int main(int argc, char** argv)
{
    if (argc != 2 && argc != 3) {
        std::cerr << "Usage: capture FILE [CONTENT]\n";
        return 2;
    }
    try {
        Backup::File::YFile file(Backup::File::YFile::OPEN_MODE_READ, argv[1], {});
        const auto mapper = [](Krt::File::YPath path, bool isDirectory) {
            return Backup::YJobPath::FromFilePath(Backup::YJobPath(), path, isDirectory);
        };
        const auto record = Backup::File::YMetadataBase::ConstructFromFile(file, mapper);
        std::cout << Krt::JSON::YValue::FromObject(record->ToJSON()).Stringify(true) << "\n";
        if (argc == 3) {
            std::ofstream content(argv[2], std::ios::binary);
            char buffer[65536];
            while (const unsigned int count = file.Read(buffer, sizeof buffer))
                content.write(buffer, count);
        }
    } catch (const Krt::Exception::YError& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
}
