#include "Krt/Thread/Unix/NativeThread.h"

#include <pthread.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace Krt::Thread {

unsigned long long ReadThreadId()
{
    return static_cast<unsigned long long>(gettid());
}

void PublishThreadName(const char* name)
{
    constexpr std::size_t Longest = 15;
    std::size_t length = strnlen(name, Longest + 1);
    if (length > Longest) {
        length = Longest;
        while (length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80)
            --length; // not in the middle of a character
    }
    pthread_setname_np(pthread_self(), std::string(name, length).c_str());
}

} // namespace Krt::Thread
