// Bytes that begin with "{" are a document. Others are rules: a byte of flags, a path and a
// pattern each, of which a document is made whose tree has to agree with a plain list.
#include "fuzz/Input.h"

#include "testing/NaiveSelection.h"
#include "testing/SelectionText.h"

#include "Backup/File/YSelectionExplanation.h"

#include "Krt/JSON/YValue.h"

namespace {

using Backup::File::YSelectionManager;
using Backup::File::YSelectionPathDescriptor;
using Fuzz::Expect;
using Krt::YString;
using Krt::JSON::YValue;
using Krt::Match::MatchType;

/// Absolute, its names parted by one "/" each.
std::string PlainPath(std::string text)
{
    std::erase(text, '\0');
    const Krt::File::YPath absolute(("/" + text).c_str());
    YString path;
    for (const YString& name : absolute.PopulateComponents())
        path = path + "/" + name;
    return path.IsEmpty() ? "/" : path.Bytes();
}

YSelectionPathDescriptor TakeRule(Fuzz::Input& input)
{
    constexpr MatchType Kinds[] = {MatchType::Exact, MatchType::Glob, MatchType::Any, MatchType::None};
    const unsigned int flags = input.Byte();
    const std::string path = PlainPath(input.Text());
    const YString pattern(input.Text().c_str());
    const Backup::File::YSelectionDescriptor rule(
        Krt::Match::Descriptor(Kinds[flags & 3], pattern, (flags & 4) == 0),
        (flags & 8) != 0 ? YSelectionManager::RecursionType::Recursive
                         : YSelectionManager::RecursionType::NonRecursive,
        (flags & 16) != 0 ? YSelectionManager::SelectionType::Exclude
                          : YSelectionManager::SelectionType::Include,
        (flags & 32) == 0);
    auto json = YSelectionPathDescriptor(path.c_str(), rule).ToJSON();
    json.Put("explicit_selection", boost::make_shared<YValue>(YValue::FromBool((flags & 64) != 0)));
    YSelectionPathDescriptor result(path.c_str(), rule);
    result.FromJSON(json);
    return result;
}

YSelectionManager FromText(const YString& text)
{
    YSelectionManager tree;
    tree.FromJSON(YValue::Parse(text.Bytes())->AsObject());
    return tree;
}

YString TextOf(Krt::JSON::YObject json)
{
    return YValue::FromObject(std::move(json)).Stringify(true);
}

YString Document(const std::vector<YSelectionPathDescriptor>& rules)
{
    Krt::JSON::YArray includes, excludes;
    for (const YSelectionPathDescriptor& rule : rules) {
        Krt::JSON::YObject entry;
        entry.Set<YString>("path", rule.GetPath());
        entry.Set<Krt::JSON::YObject>("descriptor", rule.YSelectionDescriptor::ToJSON());
        (rule.IsInclude() ? includes : excludes)
            .push_back(boost::make_shared<YValue>(YValue::FromObject(std::move(entry))));
    }
    Krt::JSON::YObject document;
    document.Set<Krt::JSON::YArray>("includes", std::move(includes));
    document.Set<Krt::JSON::YArray>("excludes", std::move(excludes));
    return TextOf(std::move(document));
}

// Reading adds the rules in the order of their places, in which one from above may cover an explicit one that
// was there first. After that nothing changes any more.
void CheckWrittenForm(const YSelectionManager& tree)
{
    const YSelectionManager again = FromText(TextOf(tree.ToJSON("/")));
    Expect(FromText(TextOf(again.ToJSON("/"))) == again, "a tree is written and read again unchanged");
    const std::string rules = Testing::Words(tree);
    Expect(again == tree || rules.find(" explicit") != std::string::npos, "only explicit rules get covered");
}

void CheckAgainstList(std::vector<YSelectionPathDescriptor> rules)
{
    const YSelectionManager tree = FromText(Document(rules));
    Testing::NaiveSelection list;
    std::stable_partition(rules.begin(), rules.end(), [](const auto& rule) { return rule.IsInclude(); });
    for (const YSelectionPathDescriptor& rule : rules)
        list.Add(rule);
    Expect(Testing::Words(tree) == list.Words(), "the rules that are kept");
    CheckWrittenForm(tree);
    for (const YSelectionPathDescriptor& rule : rules) {
        for (const YSelectionPathDescriptor& other : rules) {
            const std::string name = other.GetDescriptor().GetPattern().Bytes();
            for (const std::string& below : {std::string(), "/" + name, other.GetPath().Bytes() + "/x"}) {
                const std::string path = PlainPath(rule.GetPath().Bytes() + below);
                if (path == "/")
                    continue;
                const auto answer = list.Ask(path);
                Expect(tree.GetPathSelectionType(path.c_str()) == answer, "the answer about a path");
                Expect(tree.Explain(path.c_str()).answer == answer, "the explained answer about a path");
            }
        }
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size != 0 && data[0] == '{') {
        try {
            CheckWrittenForm(FromText(YString(std::string(data, data + size))));
        } catch (const Krt::Exception::YError&) {
        }
        return 0;
    }
    if (size > 256) // the list takes the square of it
        return 0;
    std::vector<YSelectionPathDescriptor> rules;
    for (Fuzz::Input input(data, size); !input.IsEmpty() && rules.size() < 8;)
        rules.push_back(TakeRule(input));
    CheckAgainstList(std::move(rules));
    return 0;
}
