#include "Krt/JSON/YObject.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YValue.h"
#include "Krt/Log/LogSite.h"

namespace Krt::JSON {

YObject::YObject() = default;

YObject::YObject(const YObject& other)
    : m_entries(other.m_entries), m_index(other.m_index ? std::make_unique<Index>(*other.m_index) : nullptr)
{}

YObject::YObject(YObject&& other) noexcept = default;

YObject& YObject::operator=(const YObject& other)
{
    return *this = YObject(other);
}

YObject& YObject::operator=(YObject&& other) noexcept = default;

YObject::~YObject() = default;

std::size_t YObject::Position(std::string_view key) const
{
    if (m_index) {
        const auto found = m_index->find(key);
        return found == m_index->end() ? m_entries.size() : found->second;
    }
    std::size_t position = 0;
    while (position < m_entries.size() && m_entries[position].first.Bytes() != key)
        ++position;
    return position;
}

void YObject::AddToIndex()
{
    const bool isNew = !m_index;
    try {
        if (isNew)
            m_index = std::make_unique<Index>();
        for (std::size_t i = isNew ? 0 : m_entries.size() - 1; i < m_entries.size(); ++i)
            m_index->emplace(m_entries[i].first.Bytes(), i);
    } catch (...) {
        m_entries.pop_back();
        if (isNew)
            m_index.reset();
        throw;
    }
}

void YObject::Put(Key key, boost::shared_ptr<YValue> value)
{
    Slot(key.Bytes()) = std::move(value);
}

boost::shared_ptr<YValue>& YObject::Slot(std::string_view key)
{
    const std::size_t position = Position(key);
    if (position < m_entries.size())
        return m_entries[position].second;
    if (m_entries.capacity() == 0)
        m_entries.reserve(4); // most objects have one to three members
    m_entries.emplace_back(key, nullptr);
    if (m_entries.size() > LinearLimit)
        AddToIndex();
    return m_entries.back().second;
}

const boost::shared_ptr<YValue>& YObject::FindOpt(Key key) const
{
    static const boost::shared_ptr<YValue> absent;
    const std::size_t position = Position(key.Bytes());
    return position < m_entries.size() ? m_entries[position].second : absent;
}

const boost::shared_ptr<YValue>& YObject::Find(Key key, unsigned int messageType) const
{
    const boost::shared_ptr<YValue>& value = FindOpt(key);
    if (!value) [[unlikely]]
        KRT_RAISE_ON(messageType, ErrorCode::NotFound,
                     "JSON object has no key \"" << YString(key.Bytes()) << "\"");
    return value;
}

void YObject::LogFailure(const Exception::YError& error, unsigned int messageType) const
{
    KRT_LOG(messageType, error);
}

} // namespace Krt::JSON
