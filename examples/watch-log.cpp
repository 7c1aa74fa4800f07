// watch-log <LOG: tells what is traced in a log, and the first message of all but once.
// Learn: a signal calls its slots for as long as what Connect gave out lives; a slot may take itself off
// while it runs. Usage: tail -f agent.log | watch-log
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
