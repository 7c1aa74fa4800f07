#include "agent/Convert/KnownKeys.h"

#include "agent/Cli/Report.h"

#include "Krt/JSON/YValue.h"

#include <algorithm>
#include <span>
#include <string_view>

namespace Agent {

using Krt::YString;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

constexpr std::size_t ToldLimit = 64 * 1024;

struct Key
{
    std::string_view name;
    std::span<const Key> inner = {}; // of the objects that it holds
};

constexpr Key ComponentKeys[] = {{"class_id"}, {"subclass_id"}, {"name"}, {"display_name"}};
constexpr Key JobPathKeys[] = {{"components", ComponentKeys}};
constexpr Key NamedPathKeys[] = {{"long", JobPathKeys}, {"short"}};
constexpr Key AttributeKeys[] = {{"name"}, {"value"}};
// Of all kinds of records.
constexpr Key RecordKeys[] = {{"metadata_type"},
                              {"file_size"},
                              {"last_changed_time"},
                              {"last_write_time"},
                              {"last_access_time"},
                              {"mode_flags"},
                              {"is_directory"},
                              {"user_id"},
                              {"group_id"},
                              {"file_path", JobPathKeys},
                              {"symbolic_link_target"},
                              {"extended_attributes", AttributeKeys},
                              {"reparse_type"},
                              {"creation_time"},
                              {"file_attributes"},
                              {"file_paths", NamedPathKeys},
                              {"permission_change_time"},
                              {"directory_hash"},
                              {"job_path", JobPathKeys},
                              {"legacy_metadata"}};

// A key with those around it.
struct Place
{
    const Place* outer;
    const YString& name;

    std::string Text() const { return (outer ? outer->Text() + "." : "") + name.Bytes(); }
};

// Calls `tell` with each place that the keys don't have.
template <class Tell>
void Search(const YObject& object, std::span<const Key> keys, const Place* outer, const Tell& tell)
{
    for (const auto& [name, value] : object.Entries()) {
        const Place place{outer, name};
        const auto key = std::find_if(keys.begin(), keys.end(),
                                      [&](const Key& known) { return known.name == place.name.Bytes(); });
        if (key == keys.end()) {
            tell(place);
        } else if (key->inner.empty()) {
            continue;
        } else if (value->IsObject()) {
            Search(value->AsObject(), key->inner, &place, tell);
        } else if (value->IsArray()) {
            for (const boost::shared_ptr<YValue>& element : value->AsArray()) {
                if (element->IsObject())
                    Search(element->AsObject(), key->inner, &place, tell);
            }
        }
    }
}

} // namespace

void KnownKeys::Check(const YObject& record, unsigned long long line, Report& report)
{
    Search(record, RecordKeys, nullptr, [&](const Place& place) {
        std::string text = place.Text();
        if (m_isFull || m_told.contains(text))
            return;
        m_bytes += text.size();
        m_isFull = m_bytes > ToldLimit;
        if (m_isFull) {
            report.Note("Warning: more keys are unknown than can be told");
            return;
        }
        report.Note(YString("Warning: no record has a key \"" + text + "\"; it is left out (first in line " +
                            std::to_string(line) + ")"));
        m_told.insert(std::move(text));
    });
}

} // namespace Agent
