// select PATH...: prints how a job's rules decide about paths.
// Learn: a rule belongs to a directory and applies to the entries in it; an include is compared with the last
// name of a path, an exclude with every name of it.
#include "Backup/File/YSelectionManager.h"

#include <iostream>

using Rule = Backup::File::YSelectionDescriptor;

int main(int argc, char** argv)
{
    Backup::File::YSelectionManager rules;
    rules.Add("/home", Krt::Match::AnyDescriptor(), Rule::Recursive, Rule::Include, true);
    rules.Add("/home", Krt::Match::GlobDescriptor("*.tmp", true), Rule::Recursive, Rule::Exclude, true);
    rules.Add("/home/ann", Krt::Match::ExactDescriptor("cache", true), Rule::NonRecursive, Rule::Exclude,
              false);

    for (int i = 1; i < argc; ++i) {
        switch (rules.GetPathSelectionType(argv[i])) {
        case Rule::Include:
            std::cout << argv[i] << ": back up\n";
            break;
        case Rule::Exclude:
            std::cout << argv[i] << ": excluded and reported\n";
            break;
        case Rule::NotSelectedDoRecurse:
            std::cout << argv[i] << ": not itself, but look inside\n";
            break;
        case Rule::NotSelectedDoNotRecurse:
            std::cout << argv[i] << ": nothing to do here\n";
            break;
        }
    }
}
