// The bytes are a JSON text; the result is compared with that of another parser.
#include "fuzz/Input.h"
#include "fuzz/TextModel.h"

#include "Krt/JSON/YValue.h"

#include <boost/json.hpp>

#include <set>

namespace {

using Fuzz::Expect;
using Krt::YString;
using Krt::JSON::YValue;

// Returns true if a YValue can represent the JSON text: its numbers are unsigned and fit in 64 bits, and null
// occurs only as a member.
bool Fits(const std::string& text)
{
    std::string open;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '"') {
            while (text[++at] != '"')
                at += text[at] == '\\' ? 1 : 0;
        } else if (text[at] == '{' || text[at] == '[') {
            open += text[at];
        } else if (text[at] == '}' || text[at] == ']') {
            open.pop_back();
        } else if (text[at] == 'n' && !open.ends_with('{')) {
            return false;
        } else if (std::string("-0123456789").find(text[at]) != std::string::npos) {
            const std::size_t end = std::min(text.find_first_not_of("+-.0123456789eE", at), text.size());
            const std::string number = text.substr(at, end - at), most = "18446744073709551615";
            if (number.find_first_of("+-.eE") != std::string::npos || number.size() > most.size() ||
                (number.size() == most.size() && number > most))
                return false;
            at = end - 1;
        } else if (std::string("truefalsn").find(text[at]) != std::string::npos) {
            at = text.find('e', at) == at + 3 || text[at] == 'n' ? at + 3 : at + 4;
        }
    }
    return true;
}

// The characters U+EF80 to U+EFFF represent bytes.
YString Text(std::string text)
{
    for (std::size_t at = 0; (at = text.find('\xEE', at)) != std::string::npos; ++at) {
        const auto second = static_cast<unsigned char>(text[at + 1]);
        const auto third = static_cast<unsigned char>(text[at + 2]);
        if (second >= 0xBE)
            text.replace(at, 3, 1, static_cast<char>((second & 3) << 6 | (third & 0x3F)));
        else
            at += 2;
    }
    return YString(std::string_view(text));
}

bool Same(const boost::json::value& other, const YValue& value);

bool SameMembers(const boost::json::object& other, const Krt::JSON::YObject& object)
{
    std::set<YString> keys;
    std::size_t members = 0;
    for (const auto& [key, member] : other) {
        if (!keys.insert(Text(std::string(key))).second)
            return true; // keys that differ in NULs at their ends are one
        members += member.is_null() ? 0 : 1;
    }
    for (const auto& [key, member] : other) {
        const auto& own = object.FindOpt(Text(std::string(key)));
        if (member.is_null() ? own != nullptr : own == nullptr || !Same(member, *own))
            return false;
    }
    return object.Entries().size() == members;
}

bool Same(const boost::json::value& other, const YValue& value)
{
    if (other.is_array()) {
        const auto& array = other.get_array();
        return value.IsArray() &&
               std::equal(array.begin(), array.end(), value.AsArray().begin(), value.AsArray().end(),
                          [](const auto& a, const auto& b) { return Same(a, *b); });
    }
    if (other.is_object())
        return value.IsObject() && SameMembers(other.get_object(), value.AsObject());
    if (other.is_string())
        return value.IsString() && value.AsString() == Text(std::string(other.get_string()));
    if (other.is_bool())
        return value.IsBool() && value.AsBool() == other.get_bool();
    return value.IsNumber() && value.AsNumber() == other.to_number<unsigned long long>();
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(data, data + size);
    boost::json::parse_options options;
    options.max_depth = 64;
    boost::json::error_code damage;
    const boost::json::value other = boost::json::parse(text, damage, {}, options);
    boost::shared_ptr<YValue> value;
    try {
        value = YValue::Parse(text);
    } catch (const Krt::Exception::YError& error) {
        Expect(error.GetCode() == Krt::ErrorCode::InvalidArgument, "the error of a text that is not JSON");
        Expect(damage || !Fits(text), "what another parser takes is taken");
        return 0;
    }
    Expect(!damage && Fits(text), "what another parser refuses is refused");
    Expect(Same(other, *value), "the value is what another parser gives");

    const YString compact = value->Stringify(true);
    for (const YString& written : {compact, value->Stringify(false)})
        Expect(YValue::Parse(written.Bytes())->Stringify(true) == compact,
               "what is written is read again as the same");
    return 0;
}
