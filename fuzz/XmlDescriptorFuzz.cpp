// Lines "name=value" become the attributes of an element, where the name is one of its own, so that TinyXML's
// own parser plays no part.
#include "fuzz/Fuzz.h"

#include "Backup/File/YFileDescriptor.h"

#include "Krt/Exception/YError.h"

#include <tinyxml.h>

#include <sstream>
#include <string>

namespace {

using Backup::File::YFileDescriptor;

TiXmlElement ElementOf(const std::string& text)
{
    TiXmlElement element("Descriptor");
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        for (const std::string name :
             {"path", "fileSpec", "caseSensitive", "isRecursive", "volumeGuid", "mountPath", "report"}) {
            if (line.starts_with(name + '='))
                element.SetAttribute(name.c_str(), line.c_str() + name.size() + 1);
        }
    }
    return element;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const TiXmlElement element = ElementOf(std::string(data, data + size));
    YFileDescriptor loaded;
    try {
        loaded.LoadFromXmlNode(&element);
    } catch (const Krt::Exception::YError& error) {
        Fuzz::Expect(error.GetCode() == Krt::ErrorCode::NumberConversion, "only a flag can be damaged");
        return 0;
    }
    TiXmlElement parent("Descriptors");
    loaded.SaveToXmlNode(&parent);
    const YFileDescriptor again(parent.FirstChildElement());
    Fuzz::Expect(again == loaded && again.GetReport() == loaded.GetReport() &&
                     again.GetVolumeGuid() == loaded.GetVolumeGuid() &&
                     again.GetMountPath() == loaded.GetMountPath(),
                 "what was loaded is saved and loaded again unchanged");
    Fuzz::Expect(!loaded.CheckMatch(loaded.GetPath()), "a directory does not lie below itself");
    return 0;
}
