// capture FILE: a file's metadata as a line of JSON.
// Learn: YFile looks at the file once; the mapper gives each path its place in the job; a record knows its
// own JSON form. Every failure is a YError.
#include "Backup/File/Unix/YFile.h"
#include "Backup/File/YMetadataBase.h"
#include "Krt/Exception/YError.h"
#include "Krt/JSON/YValue.h"

#include <iostream>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "Usage: capture FILE\n";
        return 2;
    }
    try {
        Backup::File::YFile file(Backup::File::YFile::OPEN_MODE_READ, argv[1], {});
        const auto mapper = [](Krt::File::YPath path, bool isDirectory) {
            return Backup::YJobPath::FromFilePath(Backup::YJobPath(), path, isDirectory);
        };
        const auto record = Backup::File::YMetadataBase::ConstructFromFile(file, mapper);
        std::cout << Krt::JSON::YValue::FromObject(record->ToJSON()).Stringify(true).CStr() << "\n";
    } catch (const Krt::Exception::YError& error) {
        std::cerr << error.GetMessage().CStr() << "\n";
        return 1;
    }
}
