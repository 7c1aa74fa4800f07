#include "Krt/JSON/YValue.inl"

#include "Krt/Exception/Raise.h"

#include <boost/container/small_vector.hpp>
#include <boost/json/basic_parser_impl.hpp>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace Krt::JSON {

namespace {

constexpr std::size_t DepthLimit = 64;
// Room for the members of a metadata record is reserved at once.
constexpr std::size_t RootMembers = 16;
// A larger document is kept compact: its containers have no room for more.
constexpr std::size_t LeastCompact = 65536;

// Turns each of the characters U+EF80 to U+EFFF, which represent bytes that are not text, back into its byte.
// The text is valid UTF-8, in which they are EE BE 80 to EE BF BF.
void DecodeBytes(std::string& text)
{
    char* out = text.data();
    const char* at = out;
    const char* const end = at + text.size();
    const auto move = [&out](const char* from, const char* to) { // these may overlap
        std::memmove(out, from, to - from);
        out += to - from;
    };
    while (const void* found = std::memchr(at, 0xEE, end - at)) {
        const char* const character = static_cast<const char*>(found);
        move(at, character);
        at = character + 3;
        const unsigned int number = (character[1] & 0x3F) << 6 | (character[2] & 0x3F);
        if (number < 0xF80)
            move(character, at);
        else
            *out++ = static_cast<char>(number & 0xFF);
    }
    move(at, end);
    text.resize(out - text.data());
}

// Takes the elements out of a container. In a compact document they get memory of their own, and the
// container keeps its memory for those of the next one.
template <class Vector>
Vector Collected(Vector& elements, bool isCompact)
{
    if (!isCompact)
        return std::exchange(elements, Vector());
    Vector collected(std::make_move_iterator(elements.begin()), std::make_move_iterator(elements.end()));
    elements.clear();
    return collected;
}

YObject WithoutNull(const YObject& object)
{
    YObject kept;
    for (const YObject::Entry& entry : object.Entries()) {
        if (entry.second)
            kept.Put(entry.first, entry.second);
    }
    return kept;
}

} // namespace

// Builds values from the parser's events. The parser prescribes the names of the operations.
class JsonBuilder
{
public:
    using Code = boost::json::error_code;
    using Text = boost::json::string_view;

    static constexpr std::size_t max_object_size = -1;
    static constexpr std::size_t max_array_size = -1;
    static constexpr std::size_t max_key_size = -1;
    static constexpr std::size_t max_string_size = -1;

    JsonBuilder(std::string_view document, YValue::DuplicateKeys duplicates)
        : m_document(document), m_duplicates(duplicates),
          m_mayHoldBytes(document.find('\xEE') != document.npos || document.find('\\') != document.npos),
          m_isCompact(document.size() >= LeastCompact)
    {}
    const boost::shared_ptr<YValue>& Root() const { return m_root; }
    // Raises for a parser that stopped at `offset`.
    [[noreturn]] void RaiseFailure(const Code& error, std::size_t offset) const;

    bool on_document_begin(Code&) { return true; }
    bool on_document_end(Code&) { return true; }
    bool on_comment_part(Text, Code&) { return true; }
    bool on_comment(Text, Code&) { return true; }
    bool on_array_begin(Code&) { return Open(true); }
    bool on_array_end(std::size_t, Code&);
    bool on_object_begin(Code&) { return Open(false); }
    bool on_object_end(std::size_t, Code&);
    bool on_key_part(Text part, std::size_t, Code&) { return AddPart(part); }
    bool on_key(Text last, std::size_t, Code&);
    bool on_string_part(Text part, std::size_t, Code&) { return AddPart(part); }
    bool on_string(Text last, std::size_t, Code&);
    bool on_number_part(Text, Code&) { return true; }
    bool on_int64(std::int64_t number, Text text, Code& error);
    bool on_uint64(std::uint64_t number, Text, Code&) { return Add<unsigned long long>(number); }
    bool on_double(double, Text text, Code& error);
    bool on_bool(bool value, Code&) { return Add<bool>(value); }
    bool on_null(Code& error);

private:
    // A container whose end has not been parsed yet.
    struct Container
    {
        YArray array;
        YObject object;
        boost::shared_ptr<YValue>* slot = nullptr; // of the member whose key came last
        std::size_t keys = 0;                      // counted if duplicates are refused
        bool isArray = false;
        bool hasNull = false;
    };

    bool Open(bool isArray);
    Container& Innermost() { return m_open[m_depth - 1]; }
    template <class T, class Content>
    bool Add(Content&& content);
    [[gnu::noinline]] bool RequireNewKey(Container& container, Code& error);
    bool AddPart(Text part);
    std::string_view Whole(Text last);
    bool Refuse(const char* reason, Text number, Code& error);

    std::string_view m_document;
    const YValue::DuplicateKeys m_duplicates;
    const bool m_mayHoldBytes; // the same for all strings of a document
    const bool m_isCompact;
    boost::shared_ptr<YValue> m_root;
    boost::container::small_vector<Container, 8>
        m_open; // the first m_depth; others are kept for their memory
    std::size_t m_depth = 0;
    std::string m_parts; // of a string with escapes
    const char* m_refusal = nullptr;
    const YString* m_refusedKey = nullptr;
    const char* m_refusedNumber = nullptr;
};

void JsonBuilder::RaiseFailure(const Code& error, std::size_t offset) const
{
    std::string reason = m_refusal ? m_refusal : error.message();
    if (m_refusedKey)
        reason += " '" + m_refusedKey->Bytes() + "'";
    if (m_refusedNumber)
        offset = m_refusedNumber - m_document.data();
    KRT_RAISE_AS("Parse", MessageType::Runtime, ErrorCode::InvalidArgument,
                 "Invalid JSON text: " << reason.c_str() << " at offset " << offset);
}

// If `number` is empty, the offset is that of the parser.
bool JsonBuilder::Refuse(const char* reason, Text number, Code& error)
{
    m_refusal = reason;
    m_refusedNumber = number.data();
    error = boost::json::error::syntax;
    return false;
}

bool JsonBuilder::Open(bool isArray)
{
    if (m_depth == m_open.size())
        m_open.emplace_back();
    Container& container = m_open[m_depth++];
    container.isArray = isArray;
    container.hasNull = false;
    container.keys = 0;
    if (m_depth == 1)
        container.object.Reserve(isArray ? 0 : RootMembers);
    return true;
}

template <class T, class Content>
bool JsonBuilder::Add(Content&& content)
{
    boost::shared_ptr<YValue> value = YValue::Share<T>(std::forward<Content>(content));
    if (m_depth == 0)
        m_root = std::move(value);
    else if (Innermost().isArray)
        Innermost().array.push_back(std::move(value));
    else
        *Innermost().slot = std::move(value);
    return true;
}

bool JsonBuilder::AddPart(Text part)
{
    m_parts.append(part.data(), part.size());
    return true;
}

// Returns the string that ends with this part. It may be in m_parts, which the caller clears after use.
std::string_view JsonBuilder::Whole(Text last)
{
    if (m_parts.empty() && (!m_mayHoldBytes || last.find('\xEE') == Text::npos))
        return last;
    AddPart(last);
    DecodeBytes(m_parts);
    return m_parts;
}

bool JsonBuilder::on_array_end(std::size_t, Code&)
{
    YArray array = Collected(Innermost().array, m_isCompact);
    --m_depth;
    return Add<YArray>(std::move(array));
}

bool JsonBuilder::on_object_end(std::size_t, Code&)
{
    Container& container = Innermost();
    YObject object;
    if (container.hasNull)
        object = WithoutNull(std::exchange(container.object, YObject()));
    else if (container.object.m_index != nullptr)
        object = std::exchange(container.object, YObject());
    else
        object.m_entries = Collected(container.object.m_entries, m_isCompact);
    --m_depth;
    return Add<YObject>(std::move(object));
}

bool JsonBuilder::on_key(Text last, std::size_t, Code& error)
{
    std::string_view key = Whole(last);
    key = key.substr(0, key.find_last_not_of('\0') + 1); // as a YString does
    Container& container = Innermost();
    container.slot = &container.object.Slot(key);
    m_parts.clear();
    return m_duplicates == YValue::DuplicateKeys::TakeLast || RequireNewKey(container, error);
}

// Called after each key of the object. There are as many keys as members until a key is repeated.
bool JsonBuilder::RequireNewKey(Container& container, Code& error)
{
    const std::vector<YObject::Entry>& entries = container.object.Entries();
    if (++container.keys == entries.size())
        return true;
    const auto twice = std::find_if(entries.begin(), entries.end(), [&](const YObject::Entry& entry) {
        return &entry.second == container.slot;
    });
    m_refusedKey = &twice->first;
    return Refuse("duplicate key", Text(), error);
}

bool JsonBuilder::on_string(Text last, std::size_t, Code&)
{
    Add<YString>(Whole(last));
    m_parts.clear();
    return true;
}

bool JsonBuilder::on_int64(std::int64_t number, Text text, Code& error)
{
    if (text.front() == '-') // also "-0"
        return Refuse("negative number", text, error);
    return Add<unsigned long long>(number);
}

bool JsonBuilder::on_double(double, Text text, Code& error)
{
    if (text.front() == '-')
        return Refuse("negative number", text, error);
    if (text.find_first_of(".eE") != Text::npos)
        return Refuse("number with a fraction or an exponent", text, error);
    return Refuse("number above 64 bits", text, error);
}

bool JsonBuilder::on_null(Code& error)
{
    if (m_depth == 0 || Innermost().isArray)
        return Refuse("null that is not a member of an object", Text(), error);
    // The null may replace an earlier member with the same key. WithoutNull removes the key at the end.
    Innermost().hasNull = true;
    Innermost().slot->reset();
    return true;
}

boost::shared_ptr<YValue> YValue::Parse(std::string_view text)
{
    return Parse(text, DuplicateKeys::TakeLast);
}

boost::shared_ptr<YValue> YValue::Parse(std::string_view text, DuplicateKeys duplicates)
{
    boost::json::parse_options options;
    options.max_depth = DepthLimit;
    boost::json::basic_parser<JsonBuilder> parser(options, text, duplicates);
    JsonBuilder::Code error;
    const std::size_t offset = parser.write_some(false, text.data(), text.size(), error);
    if (!error && offset < text.size())
        error = boost::json::error::extra_data;
    if (error)
        parser.handler().RaiseFailure(error, offset);
    return parser.handler().Root();
}

} // namespace Krt::JSON
