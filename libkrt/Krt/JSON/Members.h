#pragma once

/// @file
/// The members of a JSON object, described once. A class has a template that passes each of its fields to
/// `members` with its key, in the order of its JSON form. Self is const unless Members::Reads is true.
///
///     template <class Members, class Self> static void Describe(Members& members, Self& self)
///
/// Members is one of the classes below, which have the same operations. ValueMembers creates the values of
/// the fields, TextMembers writes their text, ReadMembers reads them from an object, and KeyMembers lists
/// their keys. Number accepts a bool or an unsigned number.

#include "Krt/Crypto/Base64.h"
#include "Krt/JSON/YTextWriter.h"
#include "Krt/JSON/YValue.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Log/MessageType.h"

#include <type_traits>

namespace Krt::JSON {

/// Appends the members to an object, which must outlive it.
class ValueMembers
{
public:
    static constexpr bool Reads = false;     ///< true if the fields are filled from JSON
    static constexpr bool ListsKeys = false; ///< a member that depends on a field may be left out

    /// Appends to `object`.
    explicit ValueMembers(YObject& object) : m_object(object) {}

    /// A number, or a bool as 1 or 0.
    void Number(YObject::Key key, unsigned long long number)
    {
        m_object.Put(key, YValue::Create<unsigned long long>(number));
    }
    /// A string.
    void Text(YObject::Key key, const YString& text) { m_object.Put(key, YValue::Create<YString>(text)); }
    /// A string, which is omitted if it is empty.
    void OptionalText(YObject::Key key, const YString& text)
    {
        if (!text.IsEmpty())
            Text(key, text);
    }
    /// Bytes, as a string in Base64 (RFC 4648, section 4).
    void Binary(YObject::Key key, const Memory::YHeap<unsigned char>& bytes)
    {
        Text(key, Crypto::Base64EncodeData(bytes));
    }
    /// An object of a class that has a Describe of its own.
    template <class T>
    void Object(YObject::Key key, const T& value)
    {
        m_object.Put(key, Create([&](ValueMembers& members) { T::Describe(members, value); }));
    }
    /// An array with an object for each item; `describe` is called with the members of the object and the
    /// item.
    template <class Items, class Describe>
    void Objects(YObject::Key key, const Items& items, Describe describe)
    {
        YArray array;
        array.reserve(items.size());
        for (const auto& item : items)
            array.push_back(Create([&](ValueMembers& members) { describe(members, item); }));
        m_object.Put(key, YValue::Create<YArray>(std::move(array)));
    }

private:
    template <class Describe>
    static boost::shared_ptr<YValue> Create(Describe describe)
    {
        YObject object;
        ValueMembers members(object);
        describe(members);
        return YValue::Create<YObject>(std::move(object));
    }

    YObject& m_object;
};

/// Writes the members of an object that the writer has begun.
class TextMembers
{
public:
    static constexpr bool Reads = false;     ///< true if the fields are filled from JSON
    static constexpr bool ListsKeys = false; ///< a member that depends on a field may be left out

    /// Writes to `writer`.
    explicit TextMembers(YTextWriter& writer) : m_writer(writer) {}

    /// See ValueMembers.
    void Number(YObject::Key key, unsigned long long number)
    {
        m_writer.Key(key.Bytes());
        m_writer.Number(number);
    }
    /// See ValueMembers.
    void Text(YObject::Key key, const YString& text)
    {
        m_writer.Key(key.Bytes());
        m_writer.String(text.Bytes());
    }
    /// See ValueMembers.
    void OptionalText(YObject::Key key, const YString& text)
    {
        if (!text.IsEmpty())
            Text(key, text);
    }
    /// See ValueMembers.
    void Binary(YObject::Key key, const Memory::YHeap<unsigned char>& bytes)
    {
        Text(key, Crypto::Base64EncodeData(bytes));
    }
    /// See ValueMembers.
    template <class T>
    void Object(YObject::Key key, const T& value)
    {
        m_writer.Key(key.Bytes());
        m_writer.BeginObject();
        T::Describe(*this, value);
        m_writer.EndObject();
    }
    /// See ValueMembers.
    template <class Items, class Describe>
    void Objects(YObject::Key key, const Items& items, Describe describe)
    {
        m_writer.Key(key.Bytes());
        m_writer.BeginArray();
        for (const auto& item : items) {
            m_writer.BeginObject();
            describe(*this, item);
            m_writer.EndObject();
        }
        m_writer.EndArray();
    }

private:
    YTextWriter& m_writer;
};

/// Reads the members of an object into the fields, each as soon as it is read. Raises the errors of
/// YObject::Get, on the channel Runtime.
class ReadMembers
{
public:
    static constexpr bool Reads = true;      ///< true if the fields are filled from JSON
    static constexpr bool ListsKeys = false; ///< a member that depends on a field may be left out

    /// Reads from `object`, which must outlive this object.
    explicit ReadMembers(const YObject& object) : m_object(object) {}

    /// Reads a number; raises if the field is too small for it.
    template <class T>
    void Number(YObject::Key key, T& number)
    {
        if constexpr (std::is_same_v<T, unsigned short>)
            number = NumericCast<unsigned short>(m_object.Get<unsigned int>(key, MessageType::Runtime));
        else
            number = m_object.Get<T>(key, MessageType::Runtime);
    }
    /// Reads a string, which is never converted from another kind.
    template <class T>
    void Text(YObject::Key key, T& text)
    {
        text = T(m_object.Get<YString>(key, MessageType::Runtime));
    }
    /// Reads a string that may be absent; the field is unchanged then.
    void OptionalText(YObject::Key key, YString& text)
    {
        if (const boost::shared_ptr<YValue>& value = m_object.FindOpt(key))
            text = value->AsString();
    }
    /// Reads a string in Base64; raises the errors of Base64DecodeData.
    void Binary(YObject::Key key, Memory::YHeap<unsigned char>& bytes)
    {
        bytes = Crypto::Base64DecodeData(m_object.Get<YString>(key, MessageType::Runtime));
    }
    /// Reads an object of a class that YObject::Get knows.
    template <class T>
    void Object(YObject::Key key, T& value)
    {
        value = m_object.Get<T>(key, MessageType::Runtime);
    }
    /// Adds an item for each object of the array: at the end of a vector, or to a map, in which a later item
    /// replaces an earlier one with the same key.
    template <class Items, class Describe>
    void Objects(YObject::Key key, Items& items, Describe describe)
    {
        const YArray& array = m_object.Get<YArray>(key, MessageType::Runtime);
        if constexpr (requires { items.reserve(array.size()); })
            items.reserve(items.size() + array.size());
        for (const boost::shared_ptr<YValue>& element : array) {
            ReadMembers members(element->AsObject());
            if constexpr (requires { typename Items::mapped_type; }) {
                std::pair<typename Items::key_type, typename Items::mapped_type> item;
                describe(members, item);
                items.insert_or_assign(std::move(item.first), std::move(item.second));
            } else {
                typename Items::value_type item;
                describe(members, item);
                items.push_back(std::move(item));
            }
        }
    }

private:
    const YObject& m_object;
};

/// The form of a value that ReadMembers accepts.
enum class MemberForm
{
    Text,
    Bool,
    Number16,
    Number32,
    Number64,
    Array,
    Object
};

/// A key that an object may have.
struct MemberKey
{
    std::string_view name;        ///< text with static lifetime
    MemberForm form;              ///< form of its value
    std::vector<MemberKey> inner; ///< keys of the object, or of the array's objects
};

/// Appends the keys of the members to a list, which must outlive it.
class KeyMembers
{
public:
    static constexpr bool Reads = false;    ///< true if the fields are filled from JSON
    static constexpr bool ListsKeys = true; ///< members that depend on a field are all given

    /// Appends to `keys`.
    explicit KeyMembers(std::vector<MemberKey>& keys) : m_keys(keys) {}

    /// See ValueMembers.
    template <class T>
    void Number(YObject::Key key, const T&)
    {
        Add(key, std::is_same_v<T, bool> ? MemberForm::Bool
                 : sizeof(T) == 2        ? MemberForm::Number16
                 : sizeof(T) == 4        ? MemberForm::Number32
                                         : MemberForm::Number64);
    }
    /// See ValueMembers.
    void Text(YObject::Key key, const YString&) { Add(key, MemberForm::Text); }
    /// See ValueMembers.
    void OptionalText(YObject::Key key, const YString&) { Add(key, MemberForm::Text); }
    /// See ValueMembers.
    void Binary(YObject::Key key, const Memory::YHeap<unsigned char>&) { Add(key, MemberForm::Text); }
    /// See ValueMembers.
    template <class T>
    void Object(YObject::Key key, const T& value)
    {
        KeyMembers members(Add(key, MemberForm::Object));
        T::Describe(members, value);
    }
    /// See ValueMembers.
    template <class Items, class Describe>
    void Objects(YObject::Key key, const Items&, Describe describe)
    {
        KeyMembers members(Add(key, MemberForm::Array));
        const typename Items::value_type item{};
        describe(members, item);
    }

private:
    std::vector<MemberKey>& Add(YObject::Key key, MemberForm form)
    {
        return m_keys.emplace_back(MemberKey{key.Bytes(), form, {}}).inner;
    }

    std::vector<MemberKey>& m_keys;
};

} // namespace Krt::JSON
