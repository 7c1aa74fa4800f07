// JSON as repositories have it. The reader gives one part of a document after the other, without building
// values in memory, and takes any valid JSON. The writer gives the very bytes that the format prescribes.
#pragma once

#include "agent/Repository/Id.h"
#include "agent/Repository/Look.h"
#include "agent/Repository/Timestamp.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Agent::Repo {

/// A member of an object that this program does not know.
struct RawMember
{
    std::string key;  ///< the key itself, without escapes
    std::string json; ///< the text of its value, as it was read

    friend bool operator==(const RawMember&, const RawMember&) = default;
};

/// Leaves one of the members of each key: in the place of the first, with the value of the last.
void JoinRepeated(std::vector<RawMember>& members);

/// Returns true if the key names the member, whatever the case of its ASCII letters.
bool IsKey(std::string_view key, std::string_view member);

/// Reads a document. The caller asks for the value that it expects, and everything else raises Damaged with
/// the offset. Every value has to be consumed before NextKey or NextItem. One thread at a time.
class JsonReader
{
public:
    /// The text outlives the reader.
    explicit JsonReader(std::string_view text) : m_text(text), m_lookAt(std::min(text.size(), LookStep)) {}

    /// Consumes the beginning of an object. NextKey gives its members.
    void BeginObject();
    /// Consumes the next key, which is valid until the next call of NextKey, Skip or Keep. Returns false
    /// after the last member, with the object's end consumed.
    bool NextKey(std::string_view& key);
    /// Consumes the beginning of an array. NextItem gives its items.
    void BeginArray();
    /// Returns true if an item follows, otherwise false, with the array's end consumed.
    bool NextItem();

    /// Consumes null if that is the next value, and returns true then.
    bool IsNull();
    /// Consumes a string, which is valid until the next call of any operation. Bytes that are not UTF-8, and
    /// escapes of half a surrogate pair, are replaced by U+FFFD.
    std::string_view String();
    /// Consumes a number that has only digits and is at most `limit`.
    std::uint64_t Unsigned(std::uint64_t limit = UINT64_MAX);
    bool Bool();
    /// Consumes a string with 64 hexadecimal digits.
    Id ReadId();
    /// Consumes a string with a time.
    Timestamp Time();
    /// Consumes a string in Base64 (RFC 4648, section 4, padded) and replaces the content of `out`.
    void Binary(Bytes& out);
    /// Consumes a string in Base64 of exactly this many bytes. Nothing of it is kept elsewhere: a string with
    /// escapes raises Damaged.
    void BinarySecret(std::span<unsigned char> out);
    /// Consumes an array of strings, or null for none, and replaces the content of `out`.
    void Strings(std::vector<std::string>& out);
    /// Consumes any value, and returns its text, which is part of the document. Levels of arrays and objects
    /// are limited to 10,000.
    std::string_view Skip();
    /// Consumes any value, and adds it under the key. JoinRepeated is called after the last one.
    void Keep(std::string key, std::vector<RawMember>& members);
    /// Raises unless only white space follows.
    void End();
    /// Returns to the start of an item that NextItem announced, and that failed to be read as expected.
    void ReturnTo(std::size_t offset)
    {
        m_offset = offset;
        m_isFirst = false;
    }

    /// Bytes of the document before the current position.
    std::size_t GetOffset() const { return m_offset; }
    /// Raises Damaged with the current position: "damaged at offset 12: reason".
    [[noreturn]] void RaiseDamaged(const char* reason) const;

private:
    char Peek();
    void PassLook();
    bool IsAt(char byte) const { return m_offset < m_text.size() && m_text[m_offset] == byte; }
    void Take(char byte, const char* reason);
    bool TakeWord(std::string_view word);
    bool Follows(char end);
    void SkipDigits();
    void SkipNumber();
    void SkipScalar();
    std::string_view TakeString(std::string& decoded);
    void Decode(std::size_t begin, std::size_t end, std::string& out) const;
    char32_t DecodeUnit(std::size_t at, std::size_t end) const;
    [[noreturn]] void RaiseDamagedAt(std::size_t offset, const char* reason) const;

    std::string_view m_text;
    std::size_t m_offset = 0;
    std::size_t m_lookAt;   // the offset of the next look, or the end
    bool m_isFirst = false; // no member or item came yet in the innermost container
    std::string m_key;      // the last key, if it needed decoding
    std::string m_string;   // the last string, if it needed decoding
};

/// Appends a document to a string, without spaces. The caller keeps the order: a key before each value of an
/// object, an end for each beginning.
class JsonWriter
{
public:
    /// `out` outlives the writer.
    explicit JsonWriter(std::string& out) : m_out(out) {}

    void BeginObject() { Begin('{'); }
    void EndObject() { End('}'); }
    void BeginArray() { Begin('['); }
    void EndArray() { End(']'); }
    void Key(std::string_view key);
    /// A string with the escapes that the format prescribes. Bytes that are not UTF-8 become \ufffd.
    void String(std::string_view text);
    void Number(std::uint64_t number);
    void Bool(bool value);
    void Null() { Raw("null"); }
    void WriteId(const Id& id);
    void Time(const Timestamp& time);
    /// Bytes as a string in Base64.
    void Binary(ByteView bytes);
    void Strings(const std::vector<std::string>& texts);
    /// A value that is JSON text already.
    void Raw(std::string_view json);
    /// Keys with their values.
    void Members(const std::vector<RawMember>& members);

private:
    void Separate();
    void Begin(char bracket);
    void End(char bracket);

    std::string& m_out;
    bool m_follows = false; // a value comes before the next one in the same container
};

} // namespace Agent::Repo
