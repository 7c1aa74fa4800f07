// The bytes are the JSON text of a record of any kind.
#include "fuzz/Input.h"
#include "fuzz/LegacyRecord.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using Backup::File::YMetadataBase;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto read = [](std::string_view document) {
        return YMetadataBase::ConstructFromJson(
            Krt::JSON::YValue::Parse(document)->AsObject(), [](Krt::File::YPath path, bool isDirectory) {
                return Backup::YJobPath::FromFilePath({}, std::move(path), isDirectory);
            });
    };
    boost::shared_ptr<YMetadataBase> record;
    if (Fuzz::Raises([&] { record = read(text); }))
        return 0;
    const Krt::YString written = Fuzz::RecordText(*record);
    Fuzz::Expect(!Fuzz::Raises([&] { record = read(written.Bytes()); }) &&
                     Fuzz::RecordText(*record) == written,
                 "a record is written and read again unchanged");
    return 0;
}
