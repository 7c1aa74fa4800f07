#include "agent/Cli/PatternArguments.h"

#include "agent/Run/Text.h"
#include "agent/Run/UsageError.h"

#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

namespace Agent {

namespace {

// A pattern that is wrong is a mistake on the command line.
template <class Read>
Patterns PatternsBy(const Read& read)
{
    try {
        Patterns all;
        read(all);
        return all;
    } catch (const Krt::Exception::YError& error) {
        if (error.GetCode() != Krt::ErrorCode::InvalidArgument)
            throw;
        throw UsageError(ReasonOf(error).Bytes());
    }
}

} // namespace

Patterns PatternsOf(const std::vector<std::string>& patterns)
{
    return PatternsBy([&patterns](Patterns& all) {
        for (const std::string& text : patterns)
            all.Add(text, false);
    });
}

void PatternArguments::AddTo(CLI::App& command, char letter, const std::string& name,
                             const std::string& description)
{
    const auto add = [&command](const std::string& names, std::vector<std::string>& list, const char* type,
                                const std::string& text) {
        command.add_option(names, list, text)->type_name(type)->allow_extra_args(false);
    };
    add(std::string("-") + letter + ",--" + name, m_patterns, "PATTERN", description);
    add("--i" + name, m_patternsOfAnyCase, "PATTERN", "The same, in any case of letters");
    add("--" + name + "-file", m_files, "FILE", "As --" + name + ", for each line of a file");
    add("--i" + name + "-file", m_filesOfAnyCase, "FILE", "As --i" + name + ", for each line of a file");
}

Patterns PatternArguments::Get() const
{
    return PatternsBy([this](Patterns& all) {
        for (const std::string& text : m_patterns)
            all.Add(text, false);
        for (const std::string& text : m_patternsOfAnyCase)
            all.Add(text, true);
        for (const std::string& file : m_files)
            all.AddFile(file, false);
        for (const std::string& file : m_filesOfAnyCase)
            all.AddFile(file, true);
    });
}

} // namespace Agent
