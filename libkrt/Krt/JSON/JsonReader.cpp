#include "Krt/JSON/YValue.h"

#include "Krt/Exception/Raise.h"

#include <boost/json/basic_parser_impl.hpp>

#include <cstring>

namespace Krt::JSON {

namespace {

constexpr std::size_t DepthLimit = 64;

// Valid UTF-8 with each of the characters U+EF80 to U+EFFF, which stand for bytes that are none, turned back
// into its byte. In UTF-8 they are EE BE 80 to EE BF BF.
YString DecodeBytes(boost::json::string_view text)
{
    std::string bytes;
    const char* at = text.data();
    const char* const end = at + text.size();
    while (const void* found = at < end ? std::memchr(at, 0xEE, end - at) : nullptr) {
        const char* character = static_cast<const char*>(found);
        const unsigned int number = (character[1] & 0x3F) << 6 | (character[2] & 0x3F);
        bytes.append(at, character);
        at = character + 3;
        if (number < 0xF80)
            bytes.append(character, 3);
        else
            bytes += static_cast<char>(number & 0xFF);
    }
    if (bytes.empty())
        return YString(std::string_view(at, end - at));
    bytes.append(at, end);
    return YString(std::string_view(bytes));
}

} // namespace

// Makes values of the events of the parser, which prescribes the names of the operations.
class JsonBuilder
{
public:
    using Code = boost::json::error_code;
    using Text = boost::json::string_view;

    static constexpr std::size_t max_object_size = -1;
    static constexpr std::size_t max_array_size = -1;
    static constexpr std::size_t max_key_size = -1;
    static constexpr std::size_t max_string_size = -1;

    explicit JsonBuilder(std::string_view document) : m_document(document) {}

    const boost::shared_ptr<YValue>& Root() const { return m_root; }
    // Raises for a parser that stopped at `offset`.
    [[noreturn]] void RaiseFailure(const Code& error, std::size_t offset) const
    {
        const std::string reason = m_refusal ? m_refusal : error.message();
        KRT_RAISE_AS("Parse", MessageType::Runtime, ErrorCode::InvalidArgument,
                     "Invalid JSON text: "
                         << reason.c_str() << " at offset "
                         << (m_refusedNumber ? m_refusedNumber - m_document.data() : offset));
    }

    bool on_document_begin(Code&) { return true; }
    bool on_document_end(Code&) { return true; }
    bool on_comment_part(Text, Code&) { return true; }
    bool on_comment(Text, Code&) { return true; }
    bool on_number_part(Text, Code&) { return true; }

    bool on_array_begin(Code&)
    {
        m_open.emplace_back().isArray = true;
        return true;
    }

    bool on_array_end(std::size_t, Code&)
    {
        YArray array = std::move(m_open.back().array);
        m_open.pop_back();
        return Add(std::move(array));
    }

    bool on_object_begin(Code&)
    {
        m_open.emplace_back();
        return true;
    }

    bool on_object_end(std::size_t, Code&)
    {
        Level& level = m_open.back();
        YObject object = level.hasNull ? WithoutNull(level.object) : std::move(level.object);
        m_open.pop_back();
        return Add(std::move(object));
    }

    bool on_key_part(Text part, std::size_t, Code&) { return AddPart(part); }
    bool on_key(Text last, std::size_t, Code&)
    {
        m_open.back().key = TakeString(last);
        return true;
    }

    bool on_string_part(Text part, std::size_t, Code&) { return AddPart(part); }
    bool on_string(Text last, std::size_t, Code&) { return Add(TakeString(last)); }

    bool on_int64(std::int64_t number, Text text, Code& error)
    {
        if (text.front() == '-') // also "-0"
            return Refuse("negative number", text, error);
        return Add(static_cast<unsigned long long>(number));
    }
    bool on_uint64(std::uint64_t number, Text, Code&) { return Add(static_cast<unsigned long long>(number)); }
    bool on_double(double, Text text, Code& error)
    {
        if (text.front() == '-')
            return Refuse("negative number", text, error);
        if (text.find_first_of(".eE") != Text::npos)
            return Refuse("number with a fraction or an exponent", text, error);
        return Refuse("number above 64 bits", text, error);
    }

    bool on_bool(bool value, Code&) { return Add(std::move(value)); }

    bool on_null(Code& error)
    {
        if (m_open.empty() || m_open.back().isArray)
            return Refuse("null that is no member of an object", Text(), error);
        // Marked, since it may take back an earlier member of the same key; WithoutNull drops it.
        m_open.back().hasNull = true;
        m_open.back().object.Put(std::move(m_open.back().key), nullptr);
        return true;
    }

private:
    // A container whose end hasn't come yet.
    struct Level
    {
        YArray array;
        YObject object;
        YString key; // of the member that comes next
        bool isArray = false;
        bool hasNull = false;
    };

    template <class T>
    bool Add(T&& content)
    {
        auto value = boost::make_shared<YValue>(YValue::Passkey(), std::forward<T>(content));
        if (m_open.empty())
            m_root = std::move(value);
        else if (m_open.back().isArray)
            m_open.back().array.push_back(std::move(value));
        else
            m_open.back().object.Put(std::move(m_open.back().key), std::move(value));
        return true;
    }

    static YObject WithoutNull(const YObject& object)
    {
        YObject kept;
        for (const YObject::Entry& entry : object.Entries()) {
            if (entry.second)
                kept.Put(entry.first, entry.second);
        }
        return kept;
    }

    // A string with escapes comes in parts.
    bool AddPart(Text part)
    {
        m_parts.append(part.data(), part.size());
        return true;
    }

    YString TakeString(Text last)
    {
        if (m_parts.empty())
            return DecodeBytes(last);
        AddPart(last);
        YString whole = DecodeBytes(m_parts);
        m_parts.clear();
        return whole;
    }

    // An empty number leaves the place to the parser.
    bool Refuse(const char* reason, Text number, Code& error)
    {
        m_refusal = reason;
        m_refusedNumber = number.data();
        error = boost::json::error::syntax;
        return false;
    }

    std::string_view m_document;
    boost::shared_ptr<YValue> m_root;
    std::vector<Level> m_open;
    std::string m_parts;
    const char* m_refusal = nullptr;
    const char* m_refusedNumber = nullptr;
};

boost::shared_ptr<YValue> YValue::Parse(std::string_view text)
{
    boost::json::parse_options options;
    options.max_depth = DepthLimit;
    boost::json::basic_parser<JsonBuilder> parser(options, text);
    JsonBuilder::Code error;
    const std::size_t offset = parser.write_some(false, text.data(), text.size(), error);
    if (!error && offset < text.size())
        error = boost::json::error::extra_data;
    if (error)
        parser.handler().RaiseFailure(error, offset);
    return parser.handler().Root();
}

} // namespace Krt::JSON
