#include "agent/Cli/PatternArguments.h"

#include "agent/Access/TextFile.h"
#include "agent/Run/Text.h"
#include "agent/Run/UsageError.h"

#include <CLI/CLI.hpp>

namespace Agent {

namespace {

// A pattern that is not well-formed is a mistake of the command line. `place` is where it is written.
void Add(Patterns& patterns, const std::string& pattern, bool ignoresCase, const std::string& place)
{
    try {
        patterns.Add(pattern, ignoresCase);
    } catch (const Krt::Exception::YError& error) {
        throw UsageError(place + ReasonOf(error).Bytes());
    }
}

void AddFile(Patterns& patterns, const std::string& file, bool ignoresCase)
{
    VisitPatternLines(ReadListFile(file), [&](std::size_t line, const std::string& pattern) {
        Add(patterns, pattern, ignoresCase, file + ":" + std::to_string(line) + ": ");
    });
}

} // namespace

Patterns PatternsOf(const std::vector<std::string>& patterns, const std::string& option)
{
    Patterns all;
    for (const std::string& text : patterns)
        Add(all, text, false, option + ": ");
    return all;
}

void PatternArguments::AddTo(CLI::App& command, char letter, const std::string& name,
                             const std::string& description)
{
    const auto add = [&command](const std::string& names, std::vector<std::string>& list, const char* type,
                                const std::string& text) {
        command.add_option(names, list, text)->type_name(type)->allow_extra_args(false);
    };
    m_name = name;
    add(std::string("-") + letter + ",--" + name, patterns, "PATTERN", description);
    add("--i" + name, patternsOfAnyCase, "PATTERN", "As --" + name + ", ignoring letter case");
    add("--" + name + "-file", files, "FILE", "As --" + name + ", for each line of a file");
    add("--i" + name + "-file", filesOfAnyCase, "FILE", "As --i" + name + ", for each line of a file");
}

Patterns PatternArguments::Get() const
{
    Patterns all = PatternsOf(patterns, "--" + m_name);
    for (const std::string& text : patternsOfAnyCase)
        Add(all, text, true, "--i" + m_name + ": ");
    for (const std::string& file : files)
        AddFile(all, file, false);
    for (const std::string& file : filesOfAnyCase)
        AddFile(all, file, true);
    return all;
}

} // namespace Agent
