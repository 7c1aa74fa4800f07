#include "agent/Convert/KnownKeys.h"

#include "agent/Run/Report.h"

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

enum class Form
{
    Text,
    Bool,
    Number16,
    Number32,
    Number64,
    Array,
    Object
};

struct Key
{
    std::string_view name;
    Form form;
    std::span<const Key> inner = {}; // of the objects that it holds
};

constexpr Key ComponentKeys[] = {{"class_id", Form::Number32},
                                 {"subclass_id", Form::Number16},
                                 {"name", Form::Text},
                                 {"display_name", Form::Text}};
constexpr Key JobPathKeys[] = {{"components", Form::Array, ComponentKeys}};
constexpr Key NamedPathKeys[] = {{"long", Form::Object, JobPathKeys}, {"short", Form::Text}};
constexpr Key AttributeKeys[] = {{"name", Form::Text}, {"value", Form::Text}};
// Of all kinds of records.
constexpr Key RecordKeys[] = {{"metadata_type", Form::Text},
                              {"file_size", Form::Number64},
                              {"last_changed_time", Form::Number64},
                              {"last_write_time", Form::Number64},
                              {"last_access_time", Form::Number64},
                              {"mode_flags", Form::Number32},
                              {"is_directory", Form::Bool},
                              {"user_id", Form::Number32},
                              {"group_id", Form::Number32},
                              {"file_path", Form::Object, JobPathKeys},
                              {"symbolic_link_target", Form::Text},
                              {"extended_attributes", Form::Array, AttributeKeys},
                              {"reparse_type", Form::Number32},
                              {"creation_time", Form::Number64},
                              {"file_attributes", Form::Number32},
                              {"file_paths", Form::Array, NamedPathKeys},
                              {"permission_change_time", Form::Number64},
                              {"directory_hash", Form::Text},
                              {"job_path", Form::Object, JobPathKeys},
                              {"legacy_metadata", Form::Text}};

// A key with those around it.
struct Place
{
    const Place* outer;
    const YString& name;

    std::string Text() const { return (outer ? outer->Text() + "." : "") + name.Bytes(); }
};

// Calls `visit` with each place, its key, which is null for one that the keys don't have, and its value.
template <class Visit>
void Search(const YObject& object, std::span<const Key> keys, const Place* outer, const Visit& visit)
{
    for (const auto& [name, value] : object.Entries()) {
        const Place place{outer, name};
        const auto key = std::find_if(keys.begin(), keys.end(),
                                      [&](const Key& known) { return known.name == place.name.Bytes(); });
        visit(place, key == keys.end() ? nullptr : &*key, *value);
        if (key == keys.end() || key->inner.empty()) {
            continue;
        } else if (value->IsObject()) {
            Search(value->AsObject(), key->inner, &place, visit);
        } else if (value->IsArray()) {
            for (const boost::shared_ptr<YValue>& element : value->AsArray()) {
                if (element->IsObject())
                    Search(element->AsObject(), key->inner, &place, visit);
            }
        }
    }
}

bool Fits(const YValue& value, Form form)
{
    try {
        switch (form) {
        case Form::Text:
            return value.IsString();
        case Form::Bool:
            value.Convert<bool>();
            return true;
        case Form::Number16:
            return value.Convert<unsigned long long>() <= 0xFFFF;
        case Form::Number32:
            return value.Convert<unsigned long long>() <= 0xFFFFFFFF;
        case Form::Number64:
            value.Convert<unsigned long long>();
            return true;
        case Form::Array:
            return value.IsArray();
        case Form::Object:
            return value.IsObject();
        }
    } catch (const Krt::Exception::YError&) {
    }
    return false;
}

} // namespace

void KnownKeys::Check(const YObject& record, unsigned long long line, Report& report)
{
    Search(record, RecordKeys, nullptr, [&](const Place& place, const Key* key, const YValue&) {
        if (key || m_isFull)
            return;
        std::string text = place.Text();
        if (m_told.contains(text))
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

std::string KnownKeys::FindMisfit(const YObject& record)
{
    std::string found;
    Search(record, RecordKeys, nullptr, [&](const Place& place, const Key* key, const YValue& value) {
        if (found.empty() && key && !Fits(value, key->form))
            found = place.Text();
    });
    return found;
}

} // namespace Agent
