#include "Krt/JSON/YValue.inl"

#include "Krt/Exception/Raise.h"
#include "Krt/File/YPath.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Util/Numbers.h"

#include <new>

namespace Krt::JSON {

YValue YValue::FromNumber(unsigned long long number)
{
    return YValue(Passkey(), std::in_place_type<unsigned long long>, number);
}

YValue YValue::FromString(YString text)
{
    return YValue(Passkey(), std::in_place_type<YString>, std::move(text));
}

YValue YValue::FromBool(bool value)
{
    return YValue(Passkey(), std::in_place_type<bool>, value);
}

YValue YValue::FromArray(YArray array)
{
    return YValue(Passkey(), std::in_place_type<YArray>, std::move(array));
}

YValue YValue::FromObject(YObject object)
{
    return YValue(Passkey(), std::in_place_type<YObject>, std::move(object));
}

YValue::YValue(YValue&&) noexcept = default;

YValue& YValue::operator=(YValue&&) noexcept = default;

inline bool YValue::HasChildren() const
{
    if (const YArray* array = std::get_if<YArray>(&m_content))
        return !array->empty();
    const YObject* object = std::get_if<YObject>(&m_content);
    return object && !object->Entries().empty();
}

YValue::~YValue()
{
    if (!HasChildren())
        return;
    // Containers are dismantled here and not by their destructors, which would recurse as deep as the
    // document is nested.
    Pending pending;
    ReleaseChildren(pending);
    while (!pending.empty()) {
        const boost::shared_ptr<YValue> child = std::move(pending.back());
        pending.pop_back();
        if (child.use_count() == 1)
            child->ReleaseChildren(pending);
    }
}

void YValue::ReleaseChildren(Pending& pending) noexcept
{
    const auto release = [&pending](boost::shared_ptr<YValue>& child) {
        if (!child || !child->HasChildren())
            return;
        try {
            pending.push_back(std::move(child));
        } catch (const std::bad_alloc&) {
            // Its container destroys it, one level deeper on the stack.
        }
    };
    if (YArray* array = std::get_if<YArray>(&m_content)) {
        for (boost::shared_ptr<YValue>& child : *array)
            release(child);
    } else if (YObject* object = std::get_if<YObject>(&m_content)) {
        for (YObject::Entry& entry : object->m_entries)
            release(entry.second);
    }
}

void YValue::RaiseKind(const char* function, const char* wanted) const
{
    static constexpr const char* Kinds[] = {"number", "bool", "string", "array", "object"};
    KRT_RAISE_AS(function, MessageType::Runtime, ErrorCode::InvalidState,
                 "JSON value is no " << wanted << ", but: " << Kinds[m_content.index()]);
}

namespace {

// Reports the plain name, which differs from __func__ in a specialisation.
[[noreturn, gnu::cold]] void RaiseConversion(const char* name)
{
    KRT_RAISE_AS("Convert", MessageType::Runtime, ErrorCode::ValueConversion, "Unable to convert " << name);
}

} // namespace

template <class T>
T YValue::ConvertUnsigned(const char* name) const
{
    if (IsNumber())
        return NumericCast<T>(AsNumber());
    if (IsString())
        return Util::StringToNumber<T>(AsString(), false, false);
    if (IsBool())
        return AsBool() ? 1 : 0;
    RaiseConversion(name);
}

template <>
unsigned int YValue::Convert<unsigned int>() const
{
    return ConvertUnsigned<unsigned int>("uint32_t");
}

template <>
unsigned long long YValue::Convert<unsigned long long>() const
{
    return ConvertUnsigned<unsigned long long>("uint64_t");
}

template <>
bool YValue::Convert<bool>() const
{
    if (IsBool())
        return AsBool();
    if (IsNumber())
        return AsNumber() != 0;
    if (IsString() && !AsString().IsEmpty())
        return Util::StringToNumber<bool>(AsString(), false, false);
    RaiseConversion("bool");
}

template <>
boost::shared_ptr<YValue> YValue::Create<YString>(YString text)
{
    return Share<YString>(std::move(text));
}

template <>
boost::shared_ptr<YValue> YValue::Create<YArray>(YArray array)
{
    return Share<YArray>(std::move(array));
}

template <>
boost::shared_ptr<YValue> YValue::Create<YObject>(YObject object)
{
    return Share<YObject>(std::move(object));
}

template <>
boost::shared_ptr<YValue> YValue::Create<unsigned long long>(unsigned long long number)
{
    return Share<unsigned long long>(number);
}

template <>
boost::shared_ptr<YValue> YValue::Create<bool>(bool value)
{
    return Share<bool>(value);
}

template <>
boost::shared_ptr<YValue> YValue::Create<File::YPath>(File::YPath path)
{
    return Create<YString>(std::move(path));
}

template KRT_API const unsigned int& YValue::Get<unsigned int>() const;
template KRT_API const unsigned long long& YValue::Get<unsigned long long>() const;
template KRT_API const bool& YValue::Get<bool>() const;
template KRT_API const YString& YValue::Get<YString>() const;
template KRT_API const YArray& YValue::Get<YArray>() const;
template KRT_API const YObject& YValue::Get<YObject>() const;

template KRT_API const unsigned int& YObject::Get<unsigned int>(Key, unsigned int) const;
template KRT_API const unsigned long long& YObject::Get<unsigned long long>(Key, unsigned int) const;
template KRT_API const bool& YObject::Get<bool>(Key, unsigned int) const;
template KRT_API const YString& YObject::Get<YString>(Key, unsigned int) const;
template KRT_API const YArray& YObject::Get<YArray>(Key, unsigned int) const;
template KRT_API const YObject& YObject::Get<YObject>(Key, unsigned int) const;

template <class T>
boost::shared_ptr<YValue> YObject::Set(Key key, T value)
{
    using Stored = std::conditional_t<std::is_same_v<T, unsigned int>, unsigned long long, T>;
    boost::shared_ptr<YValue> made = YValue::Create<Stored>(std::move(value));
    Slot(key.Bytes()) = made;
    return made;
}

template KRT_API boost::shared_ptr<YValue> YObject::Set<unsigned int>(Key, unsigned int);
template KRT_API boost::shared_ptr<YValue> YObject::Set<YString>(Key, YString);
template KRT_API boost::shared_ptr<YValue> YObject::Set<YObject>(Key, YObject);
template KRT_API boost::shared_ptr<YValue> YObject::Set<YArray>(Key, YArray);

} // namespace Krt::JSON
