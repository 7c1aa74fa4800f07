#include "agent/Convert/KnownKeys.h"

#include "agent/Run/Report.h"

#include "Backup/File/YMetadataBase.h"

#include "Krt/JSON/Members.h"

#include <algorithm>
#include <string_view>

namespace Agent {

using Krt::YString;
using Krt::JSON::MemberForm;
using Krt::JSON::MemberKey;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

constexpr std::size_t ReportedLimit = 64 * 1024;

const std::vector<MemberKey>& RecordKeys()
{
    static const std::vector<MemberKey> keys = Backup::File::YMetadataBase::ListKeys();
    return keys;
}

// A key, and the keys in which it is nested.
struct KeyPath
{
    const KeyPath* outer;
    const YString& name;

    std::string Text() const { return (outer ? outer->Text() + "." : "") + name.Bytes(); }
};

// Calls `visit` for each key with its path, its value, and the known key, which is null for an unknown one.
template <class Visit>
void Search(const YObject& object, const std::vector<MemberKey>& keys, const KeyPath* outer,
            const Visit& visit)
{
    for (const auto& [name, value] : object.Entries()) {
        const KeyPath keyPath{outer, name};
        const auto key = std::find_if(keys.begin(), keys.end(), [&](const MemberKey& known) {
            return known.name == keyPath.name.Bytes();
        });
        visit(keyPath, key == keys.end() ? nullptr : &*key, *value);
        if (key == keys.end() || key->inner.empty()) {
            continue;
        } else if (value->IsObject()) {
            Search(value->AsObject(), key->inner, &keyPath, visit);
        } else if (value->IsArray()) {
            for (const boost::shared_ptr<YValue>& element : value->AsArray()) {
                if (element->IsObject())
                    Search(element->AsObject(), key->inner, &keyPath, visit);
            }
        }
    }
}

bool Fits(const YValue& value, MemberForm form)
{
    try {
        switch (form) {
        case MemberForm::Text:
            return value.IsString();
        case MemberForm::Bool:
            value.Convert<bool>();
            return true;
        case MemberForm::Number16:
            return value.Convert<unsigned long long>() <= 0xFFFF;
        case MemberForm::Number32:
            return value.Convert<unsigned long long>() <= 0xFFFFFFFF;
        case MemberForm::Number64:
            value.Convert<unsigned long long>();
            return true;
        case MemberForm::Array:
            return value.IsArray();
        case MemberForm::Object:
            return value.IsObject();
        }
    } catch (const Krt::Exception::YError&) {
    }
    return false;
}

} // namespace

void KnownKeys::Check(const YObject& record, unsigned long long line, Report& report)
{
    Search(record, RecordKeys(), nullptr, [&](const KeyPath& keyPath, const MemberKey* key, const YValue&) {
        if (key || m_isFull)
            return;
        std::string text = keyPath.Text();
        if (m_reported.contains(text))
            return;
        m_bytes += text.size();
        m_isFull = m_bytes > ReportedLimit;
        if (m_isFull) {
            report.Note("Warning: more keys are unknown than can be reported");
            return;
        }
        report.Note(YString("Warning: no record has a key \"" + text + "\"; it is left out (first in line " +
                            std::to_string(line) + ")"));
        m_reported.insert(std::move(text));
    });
}

std::string KnownKeys::FindMisfit(const YObject& record)
{
    std::string found;
    Search(record, RecordKeys(), nullptr,
           [&](const KeyPath& keyPath, const MemberKey* key, const YValue& value) {
               if (found.empty() && key && !Fits(value, key->form))
                   found = keyPath.Text();
           });
    return found;
}

} // namespace Agent
