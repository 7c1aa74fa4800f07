// watch-log <LOG: prints the traces of a log, and only once the first message.
// Learn: a signal calls a slot as long as the connection that Connect returned exists; a slot may disconnect
// itself while it runs. Usage: tail -f agent.log | watch-log
#include "Krt/Signal/YSignal.h"

#include <iostream>
#include <optional>
#include <string>

int main()
{
    Krt::Signal::YSignal<void(std::string)> onLine;

    unsigned int traced = 0;
    const auto counter =
        onLine.Connect([&](std::string line) { traced += line.find(" TRACE ") != line.npos; });

    std::optional<Krt::Signal::YSlot> first;
    first = onLine.Connect([&](std::string line) {
        std::cout << "begins with: " << line << "\n";
        first.reset();
    });

    for (std::string line; std::getline(std::cin, line);)
        onLine(line);
    std::cout << traced << " lines of trace\n";
}
