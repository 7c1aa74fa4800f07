#include "Backup/Util/Unix/Linux/SystemdUnit.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace Backup::Util {

using Krt::File::YPath;

namespace {

constexpr std::size_t LongestUnitName = 255;

bool IsControl(char byte)
{
    return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f';
}

// A "%" would begin a specifier.
void AddDoubling(char byte, std::string& out)
{
    out.append(byte == '%' ? 2 : 1, byte);
}

// Returns one word in quotes. Its "$" are doubled if variables are expanded in it. Bytes beyond ASCII are
// escaped, since systemd ignores a line that is not valid UTF-8.
std::string Quote(const YString& word, bool doublesDollars)
{
    std::string quoted = "\"";
    for (const char byte : word.Bytes()) {
        if (IsControl(byte) || static_cast<unsigned char>(byte) > 0x7f) {
            char escape[5];
            std::snprintf(escape, sizeof escape, "\\x%02x",
                          static_cast<unsigned int>(static_cast<unsigned char>(byte)));
            quoted += escape;
            continue;
        }
        if (byte == '"' || byte == '\\')
            quoted += '\\';
        if (byte == '$' && doublesDollars)
            quoted += '$';
        AddDoubling(byte, quoted);
    }
    return quoted + "\"";
}

std::string Title(const YString& title)
{
    static_cast<void>(YString(title).AsWide()); // raises if the text is not valid UTF-8
    std::string line;
    for (const char byte : title.Bytes())
        AddDoubling(IsControl(byte) ? ' ' : byte, line);
    // A trailing backslash would join the next line; trailing blanks are dropped.
    if (line.ends_with('\\'))
        line += ' ';
    return line;
}

std::string CommandLine(const YPath& program, const std::vector<YString>& arguments)
{
    const std::string& path = program.Bytes();
    const bool isSafe = std::none_of(path.begin(), path.end(), [](char byte) {
        return IsControl(byte) || byte == '"' || byte == '\'' || byte == '\\';
    });
    if (!path.starts_with('/') || !isSafe)
        KRT_RAISE_AS("MakeServiceUnit", MessageType::General, ErrorCode::InvalidArgument,
                     "A unit can't run the program " << program);
    // Variables are not expanded in the path, but they are in the first argument, which is the path again.
    // "@" makes the two separate words.
    std::string line = "@" + Quote(program, false) + " " + Quote(program, true);
    for (const YString& argument : arguments) {
        if (argument.Bytes().find('\0') != std::string::npos)
            KRT_RAISE_AS("MakeServiceUnit", MessageType::General, ErrorCode::InvalidArgument,
                         "Argument with a NUL byte in it for " << program);
        line += " " + Quote(argument, true);
    }
    return line;
}

} // namespace

YString GetServiceUnitName(const YString& name)
{
    static constexpr std::string_view legal =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:-_.\\@";
    const std::string unit = name.Bytes() + ".service";
    // The text after the first "@" names an instance; without it, the unit is only a template for others.
    const std::size_t instance = name.Bytes().find('@');
    const bool isStartable =
        instance == std::string::npos || (instance != 0 && instance + 1 < name.Bytes().size());
    KRT_RAISE_UNLESS(!name.IsEmpty() && unit.size() <= LongestUnitName && isStartable &&
                         name.Bytes().find_first_not_of(legal) == std::string::npos,
                     ErrorCode::InvalidArgument, "Not a legal name of a service: " << name);
    return YString(unit.c_str());
}

YString MakeServiceUnit(const YString& title, const YPath& program, const std::vector<YString>& arguments)
{
    // A program that ends at once is not started again and again without a pause.
    const std::string text = "[Unit]\n"
                             "Description=" +
                             Title(title) +
                             "\n\n"
                             "[Service]\n"
                             "Type=exec\n"
                             "ExecStart=" +
                             CommandLine(program, arguments) +
                             "\n"
                             "Restart=always\n"
                             "RestartSec=10\n\n"
                             "[Install]\n"
                             "WantedBy=multi-user.target\n";
    return YString(text.c_str());
}

} // namespace Backup::Util
