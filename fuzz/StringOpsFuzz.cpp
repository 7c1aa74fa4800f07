// Three numbers and three texts: a string, a second one to look for, and a third one to put in its place.
#include "fuzz/Input.h"
#include "fuzz/TextModel.h"

namespace {

using Fuzz::Expect;
using Krt::YString;
namespace Model = Fuzz::Model;
using Fields = std::vector<std::string>;

YString Text(const std::string& bytes)
{
    return YString(std::string_view(bytes));
}

Fields BytesOf(const std::vector<YString>& fields)
{
    Fields bytes;
    for (const YString& field : fields)
        bytes.push_back(field.Bytes());
    return bytes;
}

Fields Sections(const std::string& text, const std::string& delimiter, bool caseSensitive, bool skipEmpty)
{
    Fields fields;
    unsigned int position = 0;
    while (position != Model::NotFound) {
        const unsigned int found =
            delimiter.empty() ? Model::NotFound : Model::Find(text, delimiter, position, caseSensitive);
        const unsigned int count = found == Model::NotFound ? found : found - position;
        const std::string field = Model::Mid(text, position, count);
        if (!skipEmpty || Model::Length(field) != 0)
            fields.push_back(field);
        position = found == Model::NotFound ? found : found + static_cast<unsigned int>(delimiter.size());
        if (position >= Model::Length(text))
            position = Model::NotFound;
    }
    return fields;
}

std::string Trimmed(std::string text, bool left)
{
    for (std::size_t before = std::string::npos; before != text.size();) {
        before = text.size();
        for (const char blank : {' ', '\n', '\r'}) {
            while (!text.empty() && (left ? text.front() : text.back()) == blank)
                text.erase(left ? 0 : text.size() - 1, 1);
        }
    }
    return Model::Stripped(text);
}

// Returns an empty text if the conversion raises.
std::wstring Wide(const YString& string)
{
    std::wstring wide;
    Fuzz::Raises([&] { wide = string.AsWide(); });
    return wide;
}

// The bytes after a change of a copy, whose count of characters and wide copy have to follow.
template <class Change>
std::string After(const YString& string, Change change)
{
    YString copy(string);
    copy.Length();
    Wide(copy);
    change(copy);
    Expect(copy.Length() == Model::Length(copy.Bytes()), "a change forgets the count");
    Expect(Wide(copy) == Wide(Text(copy.Bytes())), "a change forgets the wide copy");
    return copy.Bytes();
}

struct Case
{
    unsigned int start, count;
    bool caseSensitive, skipEmpty;
    std::string text, other, third;
};

void CheckReading(const YString& string, const Case& c)
{
    const YString other = Text(c.other);
    const unsigned int found = Model::Find(c.text, c.other, 0, c.caseSensitive);
    Expect(string.Find(other, c.start, c.caseSensitive) ==
               Model::Find(c.text, c.other, c.start, c.caseSensitive),
           "Find");
    Expect(BytesOf(string.SectionVector(other, c.caseSensitive, c.skipEmpty)) ==
               Sections(c.text, c.other, c.caseSensitive, c.skipEmpty),
           "SectionVector");
    const auto [front, back] = string.Split(other, c.caseSensitive);
    const bool isSplit = !c.text.empty() && found != Model::NotFound;
    Expect(front == Text(isSplit ? Model::Mid(c.text, 0, found) : c.text), "front of Split");
    Expect(back.Bytes() == (isSplit
                                ? Model::Right(c.text, Model::Length(c.text) - found - Model::Length(c.other))
                                : std::string()),
           "back of Split");
    Expect(string.Mid(c.start, c.count).Bytes() == Model::Mid(c.text, c.start, c.count), "Mid");
    Expect(string.Left(c.count).Bytes() == Model::Mid(c.text, 0, c.count), "Left");
    Expect(string.Right(c.count).Bytes() == Model::Right(c.text, c.count), "Right");
    const std::size_t at = Model::Locate(c.text, c.start);
    if (at < c.text.size())
        Expect(&string.At(c.start) == string.CStr() + at, "At");
    else
        Expect(Fuzz::Raises([&] { string.At(c.start); }), "At after the end");
    const unsigned int length = Model::Length(c.other);
    Expect(string.EndsWith(other, c.caseSensitive) ==
               (length <= Model::Length(c.text) &&
                Model::Folded(Model::Right(c.text, length), c.caseSensitive) ==
                    Model::Folded(c.other.c_str(), c.caseSensitive)),
           "EndsWith");
}

void CheckChanges(const YString& string, const Case& c)
{
    const char* const from = c.other.c_str();
    const char* const to = c.third.c_str();
    const bool raises = *from != '\0' && !c.text.empty() && Model::Locate(c.text, c.start) >= c.text.size();
    unsigned int count = 0, wantedCount = 0;
    const std::string replaced = After(string, [&](YString& copy) {
        const auto replace = [&] {
            count = copy.Replace(from, to, c.start, c.count, c.caseSensitive);
        };
        Expect(Fuzz::Raises(replace) == raises, "Replace raises after the end");
    });
    Expect(replaced == (raises || *from == '\0' ? c.text
                                                : Model::Replaced(c.text, from, to, c.start, c.count,
                                                                  c.caseSensitive, wantedCount)),
           "Replace");
    Expect(count == wantedCount, "how often Replace did");
    Expect(After(string, [&](YString& copy) { copy += Text(c.other); }) == c.text + c.other, "+=");
    const std::size_t cut = Model::Locate(c.text, c.count);
    Expect(After(string, [&](YString& copy) { copy.Truncate(c.count); }) ==
               Model::Stripped(c.text.substr(0, cut)),
           "Truncate");
    Expect(After(string, [&](YString& copy) { copy.TrimLeft(c.count); }) ==
               (cut == Model::PastEnd ? std::string() : Model::Stripped(c.text.substr(cut))),
           "TrimLeft");
    Expect(After(string, [](YString& copy) { copy.TrimWhiteSpacesLeft(); }) == Trimmed(c.text, true),
           "TrimWhiteSpacesLeft");
    Expect(After(string, [](YString& copy) { copy.TrimWhiteSpacesRight(); }) == Trimmed(c.text, false),
           "TrimWhiteSpacesRight");
    const std::string source = c.text.c_str();
    const std::size_t end = Model::Walk(source, 0, c.count);
    Expect(After(string,
                 [&](YString& copy) {
                     Expect(copy.Copy(source.c_str(), c.count) == std::min(c.count, Model::Length(source)),
                            "characters that Copy took");
                 }) == source.substr(0, end),
           "Copy");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > 256) // the model takes the square of it
        return 0;
    Fuzz::Input input(data, size);
    Case c{input.Count(), input.Count(), false, false, {}, {}, {}};
    const unsigned int flags = input.Byte();
    c.caseSensitive = (flags & 1) != 0;
    c.skipEmpty = (flags & 2) != 0;
    c.text = Model::Stripped(input.Text());
    c.other = Model::Stripped(input.Text());
    c.third = input.Text();
    const YString string = Text(c.text);
    // A count that is known leads other ways through the operations.
    if ((flags & 4) != 0)
        Expect(string.Length() == Model::Length(c.text), "Length");
    CheckReading(string, c);
    CheckChanges(string, c);
    return 0;
}
