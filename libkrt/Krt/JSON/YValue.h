// YValue: one JSON value. Content never changes after it is made; a const read may fill the conversion cache.
// Numbers are unsigned and 64 bits wide. Normally held by boost::shared_ptr. One thread at a time.
#pragma once

#include "Krt/JSON/YObject.h"
#include "Krt/Type/YAny.h"

#include <boost/enable_shared_from_this.hpp>
#include <boost/make_shared.hpp>

#include <string_view>
#include <variant>

namespace Krt::JSON {

class KRT_API YValue : public boost::enable_shared_from_this<YValue>
{
public:
    static YValue FromNumber(unsigned long long number);
    static YValue FromString(YString text);
    static YValue FromBool(bool value);
    static YValue FromArray(YArray array);
    static YValue FromObject(YObject object);

    YValue(YValue&&) noexcept;
    YValue& operator=(YValue&&) noexcept;
    YValue(const YValue&) = delete;
    YValue& operator=(const YValue&) = delete;
    ~YValue();

    bool IsNumber() const;
    bool IsString() const;
    bool IsBool() const;
    bool IsArray() const;
    bool IsObject() const;

    /// The content; raises InvalidState on another kind.
    const unsigned long long& AsNumber() const;
    const YString& AsString() const;
    const bool& AsBool() const;
    const YArray& AsArray() const;
    const YObject& AsObject() const;

    /// The value as a T by generous rules: numbers, texts and bools turn into each other. For unsigned int,
    /// unsigned long long, bool, Backup::YJobPath and its Component. Raises ValueConversion.
    template <class T>
    T Convert() const;
    /// As YObject::Get for this value, without the log line.
    template <class T>
    const T& Get() const;
    /// For YString, YArray, YPath, Backup::YJobPath and its Component.
    template <class T>
    static boost::shared_ptr<YValue> Create(T value);

    /// JSON text (RFC 8259): compact when true, indented by two blanks a level otherwise. Bytes that are no
    /// valid UTF-8 are written as U+EF80 to U+EFFF, and so is each byte of a real character of U+EF00 to U+EFFF,
    /// so that the text is always valid and every byte string comes back.
    YString Stringify(bool compact) const;
    /// Appends the compact text to `out`; for writers of many documents.
    void StringifyTo(std::string& out) const;
    /// The value that the text holds. Raises InvalidArgument, naming the byte offset, on text that is no JSON,
    /// is nested deeper than 64 levels, or holds a number that is negative, fractional or above 64 bits, or a
    /// null that is no member (as a member it leaves the key absent).
    static boost::shared_ptr<YValue> Parse(std::string_view text);

private:
    friend class YObject;
    using Content = std::variant<unsigned long long, bool, YString, YArray, YObject>;
    explicit YValue(Content content);

    Content m_content;
    mutable Type::YAny m_cache;
};

// Specialisations that live elsewhere in this library; those for Backup::YJobPath stand beside that class.
template <>
KRT_API unsigned int YValue::Convert<unsigned int>() const;
template <>
KRT_API unsigned long long YValue::Convert<unsigned long long>() const;
template <>
KRT_API bool YValue::Convert<bool>() const;

} // namespace Krt::JSON
