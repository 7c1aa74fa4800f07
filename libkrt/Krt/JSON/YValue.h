// YValue: one JSON value. Content never changes after it is made; a const read may fill the conversion cache.
// Numbers are unsigned and 64 bits wide. Normally held by boost::shared_ptr. One thread at a time.
#pragma once

#include "Krt/JSON/YObject.h"
#include "Krt/Type/YAny.h"

#include <boost/container/small_vector.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/make_shared.hpp>

#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace Krt::File {
class YPath;
}

namespace Krt::JSON {

class KRT_API YValue : public boost::enable_shared_from_this<YValue>
{
    // Only this class can make one, so that only it can use the constructor that make_shared needs.
    struct Passkey
    {
        explicit Passkey() = default;
    };

public:
    /// A value of the kind.
    static YValue FromNumber(unsigned long long number);
    static YValue FromString(YString text);
    static YValue FromBool(bool value);
    static YValue FromArray(YArray array);
    static YValue FromObject(YObject object);

    /// For this class alone.
    template <class T, class Source>
    YValue(Passkey, std::in_place_type_t<T> kind, Source&& content)
        : m_content(kind, std::forward<Source>(content))
    {}
    YValue(YValue&&) noexcept;
    YValue& operator=(YValue&&) noexcept;
    YValue(const YValue&) = delete;
    YValue& operator=(const YValue&) = delete;
    ~YValue();

    /// The kind; exactly one is true.
    bool IsNumber() const { return std::holds_alternative<unsigned long long>(m_content); }
    bool IsString() const { return std::holds_alternative<YString>(m_content); }
    bool IsBool() const { return std::holds_alternative<bool>(m_content); }
    bool IsArray() const { return std::holds_alternative<YArray>(m_content); }
    bool IsObject() const { return std::holds_alternative<YObject>(m_content); }

    /// The content; raises InvalidState, naming both kinds, on another kind.
    const unsigned long long& AsNumber() const { return As<unsigned long long>(__func__, "number"); }
    const YString& AsString() const { return As<YString>(__func__, "string"); }
    const bool& AsBool() const { return As<bool>(__func__, "bool"); }
    const YArray& AsArray() const { return As<YArray>(__func__, "array"); }
    const YObject& AsObject() const { return As<YObject>(__func__, "object"); }

    /// The value as a T by generous rules: numbers, texts and bools turn into each other. For unsigned int,
    /// unsigned long long, bool, Backup::YJobPath and its Component. Raises ValueConversion.
    template <class T>
    T Convert() const;
    /// As YObject::Get for this value, without the log line.
    template <class T>
    const T& Get() const;
    /// For YString, YArray, YObject, unsigned long long, bool, YPath, Backup::YJobPath and its Component.
    /// Cheaper than boost::make_shared of a value.
    template <class T>
    static boost::shared_ptr<YValue> Create(T value);

    /// JSON text (RFC 8259): compact when true, indented by two blanks a level otherwise. A byte that is no
    /// part of valid UTF-8 is written as the character U+EF00 plus the byte (U+EF80 to U+EFFF), and so is
    /// each byte of a real character of that range: the text is always valid, and Parse gives back every byte
    /// string.
    YString Stringify(bool compact) const;
    /// Appends the compact text to `out`; for writers of many documents.
    void StringifyTo(std::string& out) const;
    /// The value that the text holds. Raises InvalidArgument, naming the byte offset, on text that is no
    /// JSON, is nested deeper than 64 levels, or holds a number that is negative, fractional or above 64
    /// bits, or a null that is no member (as a member it leaves the key absent).
    static boost::shared_ptr<YValue> Parse(std::string_view text);

private:
    friend class JsonBuilder; // the reader
    template <class T, class Source>
    static boost::shared_ptr<YValue> Share(Source&& content);
    using Content = std::variant<unsigned long long, bool, YString, YArray, YObject>;

    template <class T>
    const T& As(const char* function, const char* wanted) const
    {
        const T* content = std::get_if<T>(&m_content);
        if (!content) [[unlikely]]
            RaiseKind(function, wanted);
        return *content;
    }
    [[noreturn, gnu::cold]] void RaiseKind(const char* function, const char* wanted) const;
    template <class T>
    T ConvertUnsigned(const char* name) const;
    using Pending = boost::container::small_vector<boost::shared_ptr<YValue>, 16>;
    void ReleaseChildren(Pending& pending) noexcept;
    bool HasChildren() const;

    Content m_content;
    // What a read converted to; numbers and bools have their place here, others are made apart.
    mutable std::variant<std::monostate, unsigned int, unsigned long long, bool, Type::YAny> m_cache;
};

// The specialisations for Backup::YJobPath and its Component stand beside that class.
// A vector of boost's pointers has the visibility of its innermost part, which clang takes for hidden.
extern template KRT_API const YArray& YObject::Get<YArray>(Key, unsigned int) const;
extern template KRT_API boost::shared_ptr<YValue> YObject::Set<YArray>(Key, YArray);
extern template KRT_API const YArray& YValue::Get<YArray>() const;

template <>
KRT_API unsigned int YValue::Convert<unsigned int>() const;
template <>
KRT_API unsigned long long YValue::Convert<unsigned long long>() const;
template <>
KRT_API bool YValue::Convert<bool>() const;
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<YString>(YString text);
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<YArray>(YArray array);
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<YObject>(YObject object);
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<unsigned long long>(unsigned long long number);
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<bool>(bool value);
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<File::YPath>(File::YPath path);

} // namespace Krt::JSON
