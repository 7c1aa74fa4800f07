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
/// The elements of a JSON array.
using YArray = std::vector<boost::shared_ptr<YValue>>;

/// A JSON object, with its keys in the order in which they were put. Values are shared. Reading fills
/// caches inside the values (see YValue), so only one thread may read an object at a time.
class KRT_API YObject
{
public:
    /// A member: its key and its value. If the value is nullptr, the key counts as absent.
    using Entry = std::pair<YString, boost::shared_ptr<YValue>>;

    YObject();
    /// Copies the members; the values are shared.
    YObject(const YObject& other);
    /// Moves the members; `other` is empty afterwards.
    YObject(YObject&& other) noexcept;
    /// Copies the members; the values are shared.
    YObject& operator=(const YObject& other);
    /// Moves the members; `other` is empty afterwards.
    YObject& operator=(YObject&& other) noexcept;
    virtual ~YObject(); // so that a log line names a derived class

    /// A key as a parameter: the bytes of a YString or a C string, which must outlive the call.
    class Key
    {
    public:
        /// The bytes of `text`.
        Key(const YString& text) : m_bytes(text.Bytes()) {}
        /// The text up to its NUL; nullptr is the empty key.
        Key(const char* text) : m_bytes(text ? text : "") {}
        std::string_view Bytes() const { return m_bytes; } ///< the bytes of the text passed in

    private:
        std::string_view m_bytes;
    };

    /// Allocates memory for `count` members in total.
    void Reserve(std::size_t count) { m_entries.reserve(count); }
    /// Stores the value. An existing key keeps its position and gets the new value. A key whose value is
    /// nullptr counts as absent.
    void Put(Key key, boost::shared_ptr<YValue> value);
    /// Returns the value of the key. Raises NotFound, with the key in the text, on the channel
    /// `messageType`.
    const boost::shared_ptr<YValue>& Find(Key key, unsigned int messageType) const;
    /// Returns the value of the key; nullptr if the key is absent.
    const boost::shared_ptr<YValue>& FindOpt(Key key) const;

    /// Returns the value of the key as a T, which is owned by the value.
    /// - YString and YArray are never converted.
    /// - unsigned int, unsigned long long, bool and Backup::YJobPath are converted once and cached; the
    ///   first such read determines the type.
    /// - YObject: an empty array is read as an empty object.
    /// - A failure is logged on the channel `messageType` and raised.
    template <class T>
    const T& Get(Key key, unsigned int messageType) const;

    /// Creates a value, puts it and returns it. T is unsigned int, YString, YObject or YArray.
    template <class T>
    boost::shared_ptr<YValue> Set(Key key, T value);

    /// The members in their order.
    const std::vector<Entry>& Entries() const { return m_entries; }

private:
    friend class YValue;      // destroys objects without recursion
    friend class JsonBuilder; // puts a key before it has the value
    // Sorted, not hashed: the keys of a document cannot be chosen so that look-ups degrade.
    using Index = std::map<std::string, std::size_t, std::less<>>;
    static constexpr std::size_t LinearLimit = 32;

    std::size_t Position(std::string_view key) const;
    // The key's value, which is nullptr for a new key. Valid until the next new key.
    boost::shared_ptr<YValue>& Slot(std::string_view key);
    // Adds the last entry to the index, or all entries if there is no index yet.
    void AddToIndex();
    void LogFailure(const Exception::YError& error, unsigned int messageType) const;

    std::vector<Entry> m_entries;
    std::unique_ptr<Index> m_index; // made when there are more entries than LinearLimit
};

} // namespace Krt::JSON
