#pragma once

#include "Krt/Export.h"
#include "Krt/JSON/TextBuffer.h"

namespace Krt::JSON {

/// Writes compact JSON text part by part, without values, in exactly the form of YValue::StringifyTo. The
/// caller is responsible for the order: a key before each value of an object, and an end for each
/// beginning.
class KRT_API YTextWriter
{
public:
    /// Appends to `out`, which the caller must not use until the writer is destroyed.
    explicit YTextWriter(std::string& out) : m_out(out) {}

    /// Writes "{".
    void BeginObject() { Begin('{'); }
    /// Writes "}".
    void EndObject() { End('}'); }
    /// Writes "[".
    void BeginArray() { Begin('['); }
    /// Writes "]".
    void EndArray() { End(']'); }
    /// Writes the key of the next value.
    void Key(std::string_view key)
    {
        String(key);
        m_out.Append(':');
        m_follows = false;
    }
    /// Writes a number.
    void Number(unsigned long long number);
    /// Writes a string, with escapes where JSON requires them.
    void String(std::string_view text);
    /// Writes a value that is compact JSON text already.
    void Text(std::string_view json)
    {
        Separate();
        m_out.Append(json);
    }

private:
    void Separate()
    {
        if (m_follows)
            m_out.Append(',');
        m_follows = true;
    }
    void Begin(char bracket)
    {
        Separate();
        m_out.Append(bracket);
        m_follows = false;
    }
    void End(char bracket)
    {
        m_out.Append(bracket);
        m_follows = true;
    }

    TextBuffer m_out;
    bool m_follows = false; // the next part follows another one
};

} // namespace Krt::JSON
