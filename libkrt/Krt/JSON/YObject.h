// YObject: the JSON object, keys in the order in which they were put. Values are shared. Reading fills caches
// inside the values (see YValue), so one thread reads an object at a time.
#pragma once

#include "Krt/Exception/YError.h"
#include "Krt/Export.h"
#include "Krt/String/YString.h"

#include <boost/shared_ptr.hpp>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Krt::JSON {

class YValue;
/// The JSON array.
using YArray = std::vector<boost::shared_ptr<YValue>>;

class KRT_API YObject
{
public:
    /// A member: its key and its value. Where that is null, the key counts as absent.
    using Entry = std::pair<YString, boost::shared_ptr<YValue>>;

    YObject();
    YObject(const YObject& other);
    YObject(YObject&& other) noexcept;
    YObject& operator=(const YObject& other);
    YObject& operator=(YObject&& other) noexcept;
    virtual ~YObject(); // so that a log line names a derived class

    /// A key as operations take it, from a YString or a C string, which must live as long as the call.
    class Key
    {
    public:
        /// Of the text's bytes; null is the empty key.
        Key(const YString& text) : m_bytes(text.Bytes()) {}
        Key(const char* text) : m_bytes(text ? text : "") {}
        std::string_view Bytes() const { return m_bytes; }

    private:
        std::string_view m_bytes;
    };

    /// Makes room for so many members at once.
    void Reserve(std::size_t count) { m_entries.reserve(count); }
    /// Stores the value; an existing key keeps its place and gets the new value. A key with a null value
    /// counts as absent.
    void Put(Key key, boost::shared_ptr<YValue> value);
    /// Raises NotFound, naming the key, on the channel `messageType`.
    const boost::shared_ptr<YValue>& Find(Key key, unsigned int messageType) const;
    /// Holds null when the key is absent.
    const boost::shared_ptr<YValue>& FindOpt(Key key) const;

    /// The value under the key as a T, which lives in the value. YString and YArray: as it stands, never
    /// converted. unsigned int, unsigned long long, bool, Backup::YJobPath: converted once and cached, and
    /// the first such read fixes the type. YObject: an empty array reads as an empty object. A failure is
    /// logged on the channel `messageType` and raised again.
    template <class T>
    const T& Get(Key key, unsigned int messageType) const;

    /// Makes a value, puts it and returns it. For unsigned int, YString, YObject and YArray.
    template <class T>
    boost::shared_ptr<YValue> Set(Key key, T value);

    /// The members in order.
    const std::vector<Entry>& Entries() const { return m_entries; }

private:
    friend class YValue;      // takes objects apart without recursion
    friend class JsonBuilder; // puts a key before it has the value
    // Sorted, not hashed: the keys of a document can't be chosen so that look-ups degrade.
    using Index = std::map<std::string, std::size_t, std::less<>>;
    static constexpr std::size_t LinearLimit = 32;

    std::size_t Position(std::string_view key) const;
    // Where the key's value stands; null for a new key. Valid until the next new key.
    boost::shared_ptr<YValue>& Slot(std::string_view key);
    // For the last entry, and for all when there is none yet.
    void AddToIndex();
    void LogFailure(const Exception::YError& error, unsigned int messageType) const;

    std::vector<Entry> m_entries;
    std::unique_ptr<Index> m_index; // made when there are more entries than LinearLimit
};

} // namespace Krt::JSON
