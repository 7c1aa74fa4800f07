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

/// One JSON value. Its content is immutable; a const read may fill the conversion cache. Numbers are
/// unsigned and have 64 bits. Usually owned by boost::shared_ptr. One thread at a time.
class KRT_API YValue : public boost::enable_shared_from_this<YValue>
{
    // Only this class can make one, so that only it can use the constructor that make_shared needs.
    struct Passkey
    {
        explicit Passkey() = default;
    };

public:
    /// Returns a number.
    static YValue FromNumber(unsigned long long number);
    /// Returns a string.
    static YValue FromString(YString text);
    /// Returns a bool.
    static YValue FromBool(bool value);
    /// Returns an array.
    static YValue FromArray(YArray array);
    /// Returns an object.
    static YValue FromObject(YObject object);

    /// For this class only.
    template <class T, class Source>
    YValue(Passkey, std::in_place_type_t<T> kind, Source&& content)
        : m_content(kind, std::forward<Source>(content))
    {}
    /// Moves content and cache; the moved-from value may only be destroyed or assigned to.
    YValue(YValue&&) noexcept;
    /// Moves content and cache; the moved-from value may only be destroyed or assigned to.
    YValue& operator=(YValue&&) noexcept;
    YValue(const YValue&) = delete;
    YValue& operator=(const YValue&) = delete;
    ~YValue();

    /// Returns true if the value is a number.
    bool IsNumber() const { return std::holds_alternative<unsigned long long>(m_content); }
    /// Returns true if the value is a string.
    bool IsString() const { return std::holds_alternative<YString>(m_content); }
    /// Returns true if the value is a bool.
    bool IsBool() const { return std::holds_alternative<bool>(m_content); }
    /// Returns true if the value is an array.
    bool IsArray() const { return std::holds_alternative<YArray>(m_content); }
    /// Returns true if the value is an object.
    bool IsObject() const { return std::holds_alternative<YObject>(m_content); }

    /// The number. Raises InvalidState, with both kinds in the text, for another kind.
    const unsigned long long& AsNumber() const { return As<unsigned long long>(__func__, "number"); }
    /// The string. Raises InvalidState, with both kinds in the text, for another kind.
    const YString& AsString() const { return As<YString>(__func__, "string"); }
    /// The bool. Raises InvalidState, with both kinds in the text, for another kind.
    const bool& AsBool() const { return As<bool>(__func__, "bool"); }
    /// The array. Raises InvalidState, with both kinds in the text, for another kind.
    const YArray& AsArray() const { return As<YArray>(__func__, "array"); }
    /// The object. Raises InvalidState, with both kinds in the text, for another kind.
    const YObject& AsObject() const { return As<YObject>(__func__, "object"); }

    /// Returns the value as a T; numbers, strings and bools are converted into each other. T is unsigned
    /// int, unsigned long long, bool, Backup::YJobPath or its Component. Raises ValueConversion.
    template <class T>
    T Convert() const;
    /// Returns the value as a T, owned by this value; see YObject::Get. Does not log failures.
    template <class T>
    const T& Get() const;
    /// Returns a new value of the kind that T implies: YString, YArray, YObject, unsigned long long, bool,
    /// YPath, Backup::YJobPath or its Component. Faster than boost::make_shared.
    template <class T>
    static boost::shared_ptr<YValue> Create(T value);

    /// Returns JSON text (RFC 8259): compact, or indented by two blanks for each level. A byte that is not
    /// part of valid UTF-8 is written as the character U+EF00 plus the byte (U+EF80 to U+EFFF). Each byte
    /// of a real character of that range is written so, too. So the text is always valid, and Parse
    /// restores every byte string.
    YString Stringify(bool compact) const;
    /// Appends the compact text to `out`, for writers of many documents.
    void StringifyTo(std::string& out) const;
    /// Returns the value of a JSON text. Raises InvalidArgument with the byte offset for:
    /// - text that is not JSON
    /// - more than 64 levels of nesting
    /// - a number that is negative, fractional or above 64 bits
    /// - a null that is not a member (as a member it leaves the key absent)
    static boost::shared_ptr<YValue> Parse(std::string_view text);
    /// What Parse does about a key that an object has twice.
    enum class DuplicateKeys
    {
        TakeLast, ///< the last value, in the place of the first
        Refuse    ///< raises InvalidArgument, naming the key
    };
    /// Parse, which takes the last of duplicate keys, with a choice.
    static boost::shared_ptr<YValue> Parse(std::string_view text, DuplicateKeys duplicates);

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
    // The result of a conversion; numbers and bools are stored here, others are allocated separately.
    mutable std::variant<std::monostate, unsigned int, unsigned long long, bool, Type::YAny> m_cache;
};

// The specialisations for Backup::YJobPath and its Component are in YJobPath.h.
// A vector of boost's pointers has the visibility of its innermost part, which clang treats as hidden.
extern template KRT_API const YArray& YObject::Get<YArray>(Key, unsigned int) const;
extern template KRT_API boost::shared_ptr<YValue> YObject::Set<YArray>(Key, YArray);
extern template KRT_API const YArray& YValue::Get<YArray>() const;

/// Converts to 32 bits; see YValue::Convert.
template <>
KRT_API unsigned int YValue::Convert<unsigned int>() const;
/// Converts to 64 bits; see YValue::Convert.
template <>
KRT_API unsigned long long YValue::Convert<unsigned long long>() const;
/// Converts to a bool; see YValue::Convert.
template <>
KRT_API bool YValue::Convert<bool>() const;
/// Returns a new string.
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<YString>(YString text);
/// Returns a new array.
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<YArray>(YArray array);
/// Returns a new object.
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<YObject>(YObject object);
/// Returns a new number.
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<unsigned long long>(unsigned long long number);
/// Returns a new bool.
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<bool>(bool value);
/// Returns a new string with the path's text.
template <>
KRT_API boost::shared_ptr<YValue> YValue::Create<File::YPath>(File::YPath path);

} // namespace Krt::JSON
