// volumes [PATH]: prints the machine's fixed volumes, and the volume of a path.
// Learn: the manager describes the fixed volumes once and shares them; the volume of a path, of any class, is
// described at each call. A program has one manager, in GetGlobal().
#include "Backup/Core/YGlobal.h"
#include "Backup/Volume/Unix/YVolumeManager.h"
#include "Krt/Exception/YError.h"

#include <iostream>

int main(int argc, char** argv)
{
    try {
        Backup::Volume::YVolumeManager& manager = Backup::GetGlobal()->GetVolumeManager();
        for (const auto& [mountPath, volume] : manager.GetVolumeList(0xFFFFFFFF, false))
            std::cout << mountPath << " is " << volume->GetGuidPath()
                      << (volume->IsReadOnly() ? ", read-only\n" : "\n");
        const auto volume = manager.VolumeOfFilename(argc > 1 ? argv[1] : "/");
        std::cout << "class " << volume->GetDriveType() << ", " << volume->GetVolumeFreeSpace()
                  << " bytes free\n";
    } catch (const Krt::Exception::YError& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
    Backup::DestroyGlobal();
}
