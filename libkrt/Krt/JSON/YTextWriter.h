// YTextWriter: writes compact JSON text part by part, without values, in the very form of
// YValue::StringifyTo. The caller sees to the order: a key before each value of an object, and an end for
// each beginning.
#pragma once

#include "Krt/Export.h"
#include "Krt/JSON/TextBuffer.h"

namespace Krt::JSON {

class KRT_API YTextWriter
{
public:
    /// Appends to `out`, which is complete when the writer is destroyed, and belongs to it until then.
    explicit YTextWriter(std::string& out) : m_out(out) {}

    /// The parts of a document.
    void BeginObject() { Begin('{'); }
    void EndObject() { End('}'); }
    void BeginArray() { Begin('['); }
    void EndArray() { End(']'); }
    void Key(std::string_view key)
    {
        String(key);
        m_out.Append(':');
        m_follows = false;
    }
    void Number(unsigned long long number);
    void String(std::string_view text);
    /// A value that is compact text already.
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
    bool m_follows = false; // the next part stands behind another one
};

} // namespace Krt::JSON
