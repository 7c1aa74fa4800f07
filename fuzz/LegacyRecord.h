// The property that both kinds of legacy header have to show.
#pragma once

#include "fuzz/Fuzz.h"

#include "Backup/File/YMetadataBase.h"

#include "Krt/Crypto/Base64.h"
#include "Krt/Exception/YError.h"
#include "Krt/JSON/YValue.h"

namespace Fuzz {

inline Krt::YString RecordText(const Backup::File::YMetadataBase& record)
{
    return Krt::JSON::YValue::FromObject(record.ToJSON()).Stringify(true);
}

/// Converts the bytes as a header of this kind, "unix" or "win". That either raises or gives a record whose
/// modern form can be read and written again unchanged.
inline void ConvertLegacyHeader(const char* kind, const std::uint8_t* data, std::size_t size)
{
    using Backup::File::YMetadataBase;
    Krt::JSON::YObject document;
    document.Set<Krt::YString>("metadata_type", kind);
    document.Set<Krt::YString>("legacy_metadata", Krt::Crypto::Base64EncodeData({data, size}));
    boost::shared_ptr<YMetadataBase> record;
    try {
        record = YMetadataBase::ConstructFromJson(document, [](Krt::File::YPath path, bool isDirectory) {
            return Backup::YJobPath::FromFilePath({}, std::move(path), isDirectory);
        });
    } catch (const Krt::Exception::YError&) {
        return;
    }
    const Krt::YString text = RecordText(*record);
    const auto again = Krt::JSON::YValue::Parse(text.Bytes());
    Expect(RecordText(*YMetadataBase::ConstructFromJson(again->AsObject())) == text,
           "a converted record is read and written again unchanged");
}

} // namespace Fuzz
