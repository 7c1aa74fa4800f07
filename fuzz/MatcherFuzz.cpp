// A flag, a pattern and a name.
#include "fuzz/Input.h"
#include "fuzz/TextModel.h"

#include "Krt/Match/Descriptor.h"

namespace {

namespace Model = Fuzz::Model;

// A character that is cut short ends where its bytes do.
std::vector<std::string> Characters(const std::string& text)
{
    std::vector<std::string> characters;
    for (const char byte : text) {
        const bool continues = (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
        if (continues && !characters.empty() &&
            characters.back().size() < Model::CharacterSize(characters.back().front()))
            characters.back() += byte;
        else
            characters.emplace_back(1, byte);
    }
    return characters;
}

// How much of the name the pattern may have used up, character by character of it: the name matches if that
// can be all.
bool Matches(const std::vector<std::string>& name, const std::vector<std::string>& pattern,
             bool caseSensitive)
{
    std::vector<bool> reached(name.size() + 1);
    reached[0] = true;
    for (const std::string& wanted : pattern) {
        std::vector<bool> next(name.size() + 1);
        for (std::size_t i = 0; i <= name.size(); ++i) {
            if (wanted == "*")
                next[i] = reached[i] || (i > 0 && next[i - 1]);
            else if (i > 0 && reached[i - 1])
                next[i] = wanted == "?" ||
                          Model::Folded(wanted, caseSensitive) == Model::Folded(name[i - 1], caseSensitive);
        }
        reached = next;
    }
    return reached.back();
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz::Input input(data, size);
    const bool caseSensitive = (input.Byte() & 1) != 0;
    const std::string pattern = Model::Stripped(input.Text()), name = Model::Stripped(input.Text());
    const Krt::YString patternText{std::string_view(pattern)}, nameText{std::string_view(name)};
    Fuzz::Expect(Krt::Match::Check(nameText, Krt::Match::GlobDescriptor(patternText, caseSensitive)) ==
                     Matches(Characters(name), Characters(pattern), caseSensitive),
                 "Glob");
    Fuzz::Expect(Krt::Match::Check(nameText, Krt::Match::ExactDescriptor(patternText, caseSensitive)) ==
                     (Model::Folded(name, caseSensitive) == Model::Folded(pattern, caseSensitive)),
                 "Exact");
    return 0;
}
