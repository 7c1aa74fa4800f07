// walk JOB: prints a record, as a line of JSON, of each entry that the rules of a job file select.
// Learn: a walk starts at the topmost directories of the rules and queries them for each path. It descends
// through open directories, and the descent policy keeps it from entering foreign mounts. An entry that fails
// is reported and skipped.
#include "Backup/File/Unix/File.h"
#include "Backup/File/Unix/YFile.h"
#include "Backup/File/YMetadataBase.h"
#include "Backup/File/YSelectionManager.h"
#include "Krt/File/YDirectory.h"
#include "Krt/JSON/YValue.h"

#include <fstream>
#include <iostream>
#include <iterator>

using Rule = Backup::File::YSelectionDescriptor;

void Walk(const Backup::File::YSelectionManager& rules, const Krt::File::YDirectory& directory,
          const Krt::File::YPath& parent)
{
    directory.VisitEntries([&](const Krt::File::DirectoryEntry& entry) {
        const Krt::File::YPath path = parent.Append(entry.name);
        try {
            const Rule::SelectionType answer = rules.GetPathSelectionType(path);
            if (answer != Rule::Include && answer != Rule::NotSelectedDoRecurse)
                return true;
            const bool enters =
                S_ISDIR(directory.Stat(entry.name).st_mode) &&
                Backup::File::IsFollowableDirectoryFromKrtAttributes(path, Krt::File::AttributeDirectory);
            if (answer == Rule::Include) {
                Backup::File::YFile file;
                file.OpenEntry(directory, entry.name, path);
                const auto mapper = [](Krt::File::YPath of, bool isDirectory) {
                    return Backup::YJobPath::FromFilePath(Backup::YJobPath(), of, isDirectory);
                };
                const auto record = Backup::File::YMetadataBase::ConstructFromFile(file, mapper);
                std::cout << Krt::JSON::YValue::FromObject(record->ToJSON()).Stringify(true) << "\n";
            }
            if (enters)
                Walk(rules, directory.OpenDirectory(entry.name), path);
        } catch (const Krt::Exception::YError& error) {
            std::cerr << path << ": " << error << "\n";
        }
        return true;
    });
}

int main(int argc, char** argv)
try {
    std::ifstream file(argc == 2 ? argv[1] : "/dev/stdin");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    Backup::File::YSelectionManager rules;
    rules.FromJSON(Krt::JSON::YValue::Parse(text)->AsObject());
    for (const Krt::File::YPath& top : rules.GetIncludeTops({}))
        Walk(rules, Krt::File::YDirectory::Open(top), top);
} catch (const Krt::Exception::YError& error) {
    std::cerr << error << "\n";
    return 1;
}
