// What receives the members of an object, key by key. A class describes itself once, in a template over both:
// ValueMembers makes the values of its ToJSON, TextMembers writes their text at once.
#pragma once

#include "Krt/JSON/YTextWriter.h"
#include "Krt/JSON/YValue.h"

namespace Krt::JSON {

/// Puts the members into an object, which outlives it.
class ValueMembers
{
public:
    /// Behind the members that are there already.
    explicit ValueMembers(YObject& object) : m_object(object) {}

    /// A member of this kind.
    void Number(YObject::Key key, unsigned long long number)
    {
        m_object.Put(key, YValue::Create<unsigned long long>(number));
    }
    void Text(YObject::Key key, const YString& text) { m_object.Put(key, YValue::Create<YString>(text)); }
    /// `describe` takes the members of the object.
    template <class Describe>
    void Object(YObject::Key key, Describe describe)
    {
        m_object.Put(key, Made(describe));
    }
    /// An array of objects; `describe` takes the members of each and the item.
    template <class Items, class Describe>
    void Objects(YObject::Key key, const Items& items, Describe describe)
    {
        YArray array;
        array.reserve(items.size());
        for (const auto& item : items)
            array.push_back(Made([&](ValueMembers& members) { describe(members, item); }));
        m_object.Put(key, YValue::Create<YArray>(std::move(array)));
    }

private:
    template <class Describe>
    static boost::shared_ptr<YValue> Made(Describe describe)
    {
        YObject object;
        ValueMembers members(object);
        describe(members);
        return YValue::Create<YObject>(std::move(object));
    }

    YObject& m_object;
};

/// Writes the members of an object that the writer has begun; what each does is told above.
class TextMembers
{
public:
    /// @copydoc ValueMembers
    explicit TextMembers(YTextWriter& writer) : m_writer(writer) {}

    /// The same members as text.
    void Number(YObject::Key key, unsigned long long number)
    {
        m_writer.Key(key.Bytes());
        m_writer.Number(number);
    }
    void Text(YObject::Key key, const YString& text)
    {
        m_writer.Key(key.Bytes());
        m_writer.String(text.Bytes());
    }
    template <class Describe>
    void Object(YObject::Key key, Describe describe)
    {
        m_writer.Key(key.Bytes());
        m_writer.BeginObject();
        describe(*this);
        m_writer.EndObject();
    }
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

} // namespace Krt::JSON
