// The text that repositories on servers bring: XML documents of S3, addresses, and files of credentials.
#include "fuzz/Fuzz.h"

#include "agent/Http/Address.h"
#include "agent/Remote/S3Credentials.h"
#include "agent/Remote/XmlText.h"
#include "agent/Repository/Failure.h"
#include "agent/Run/UsageError.h"

#include <string>
#include <string_view>

namespace {

using namespace Agent;

void ReadDocument(std::string_view text)
{
    std::size_t bytes = 0;
    try {
        Remote::ReadXml(text, [&](std::string_view, std::string_view name, std::string_view content) {
            Fuzz::Expect(!name.empty() || text.find(':') != text.npos, "an element has a name");
            bytes += content.size();
        });
    } catch (const Repo::RepositoryError& error) {
        Fuzz::Expect(error.GetFailure() == Repo::Failure::Backend, "the server is at fault");
    }
    Fuzz::Expect(bytes <= text.size(), "entities do not grow");
}

void ReadAddress(std::string_view text)
{
    Fuzz::Expect(Http::PercentDecode(Http::PercentEncode(text)) == text, "the encoding can be undone");
    try {
        const Http::Address address = Http::ParseAddress(text);
        const std::string plain = address.Origin() + address.path;
        const Http::Address again = Http::ParseAddress(plain);
        Fuzz::Expect(again.Origin() + again.path == plain, "what is sent means the same");
        Fuzz::Expect(plain.find_first_of(" \r\n\t") == plain.npos, "a request stays on its line");
    } catch (const UsageError&) {
        // It is not an address.
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(data, data + size);
    ReadDocument(text);
    ReadAddress(text);
    if (const auto found = Remote::ParseCredentials(text, "default"))
        Fuzz::Expect(found->accessKey.find('\n') == std::string::npos, "a value is on one line");
    return 0;
}
