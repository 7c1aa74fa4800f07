// convert <RECORD: prints a record of any form, such as one with a legacy header, in the modern form.
// Learn: the factory with a mapper also accepts legacy headers; the mapper converts each path in the header
// to a job path. Damage raises an error that describes it.
#include "Backup/File/YMetadataBase.h"
#include "Krt/Exception/YError.h"
#include "Krt/JSON/YValue.h"

#include <iostream>
#include <iterator>
#include <string>

int main()
{
    try {
        const std::string text{std::istreambuf_iterator<char>(std::cin), {}};
        const auto json = Krt::JSON::YValue::Parse(text);
        const auto mapper = [](Krt::File::YPath path, bool isDirectory) {
            return Backup::YJobPath::FromFilePath(Backup::YJobPath(), path, isDirectory);
        };
        const auto record = Backup::File::YMetadataBase::ConstructFromJson(json->AsObject(), mapper);
        std::cout << Krt::JSON::YValue::FromObject(record->ToJSON()).Stringify(true) << "\n";
    } catch (const Krt::Exception::YError& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
}
