// The text of a tree. What can be read is written in a form that is read as the same.
#include "fuzz/Input.h"

#include "agent/Repository/NameText.h"
#include "agent/Repository/Tree.h"

using namespace Agent::Repo;

namespace {

std::string Rewrite(std::string_view text)
{
    TreeReader reader(text, UnknownMembers::Keep);
    std::string nodes;
    Node node;
    while (reader.Next(node)) {
        Fuzz::Expect(IsEntryName(node.name), "a node has a name of an entry");
        nodes += nodes.empty() ? "" : ",";
        AppendNode(node, nodes);
    }
    return "{\"nodes\":[" + nodes + "]}";
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string once, twice;
    if (Fuzz::Raises([&] { once = Rewrite({reinterpret_cast<const char*>(data), size}); }))
        return 0;
    Fuzz::Expect(!Fuzz::Raises([&] { twice = Rewrite(once); }) && once == twice,
                 "a tree is written and read again unchanged");
    return 0;
}
