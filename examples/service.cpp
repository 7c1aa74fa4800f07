// service NAME: prints whether a service of the system is installed, and whether it runs.
// Learn: one interface serves for launchd and systemd; CreateServiceManager returns the platform's manager.
// Installing, starting and stopping require root's rights, and raise an error if the system's program fails.
#include "Backup/Util/ServiceManager.h"
#include "Krt/Exception/YError.h"

#include <iostream>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "Usage: service NAME\n";
        return 2;
    }
    try {
        const auto services = Backup::Util::CreateServiceManager();
        if (!services->Exists(argv[1]))
            std::cout << argv[1] << " is not installed\n";
        else
            std::cout << argv[1] << (services->IsRunning(argv[1]) ? " is running\n" : " is stopped\n");
    } catch (const Krt::Exception::YError& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
}
