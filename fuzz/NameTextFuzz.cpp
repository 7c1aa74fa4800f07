// A name, which is also taken for quoted text.
#include "fuzz/Input.h"

#include "agent/Repository/NameText.h"
#include "agent/Repository/Utf8.h"

using namespace Agent::Repo;

namespace {

void Quote(std::string_view name)
{
    std::string quoted, unquoted;
    AppendQuotedName(name, quoted);
    Fuzz::Expect(IsUtf8(quoted), "quoted text is UTF-8");
    Fuzz::Expect(UnquoteName(quoted, unquoted) && unquoted == name, "a quoted name comes back");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::string name;
    Quote(text);
    if (UnquoteName(text, name))
        Quote(name);
    return 0;
}
