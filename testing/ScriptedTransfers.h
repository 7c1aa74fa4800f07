// Stands in for the results of read() and write() on one descriptor: short ones, and such that leave another
// errno than their own. Takes the place of two functions of the C library, so one source of a program
// includes it.
#pragma once

#include <cerrno>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace Testing {

/// In force for as long as it lives. Further transfers than those of the script throw a std::out_of_range.
class ScriptedTransfers
{
public:
    struct Transfer
    {
        ssize_t result;
        int error; ///< what errno becomes; 0 leaves it alone
    };

    ScriptedTransfers(int descriptor, std::vector<Transfer> script)
        : m_descriptor(descriptor), m_script(std::move(script))
    {
        s_current = this;
    }
    ~ScriptedTransfers() { s_current = nullptr; }
    ScriptedTransfers(const ScriptedTransfers&) = delete;
    ScriptedTransfers& operator=(const ScriptedTransfers&) = delete;

    static bool Covers(int descriptor)
    {
        return s_current != nullptr && s_current->m_descriptor == descriptor;
    }
    static ssize_t Next(std::size_t count)
    {
        const Transfer& transfer = s_current->m_script.at(s_current->counts.size());
        s_current->counts.push_back(count);
        if (transfer.error != 0)
            errno = transfer.error;
        return transfer.result;
    }

    std::vector<std::size_t> counts; ///< what was asked for, call by call

private:
    const int m_descriptor;
    const std::vector<Transfer> m_script;
    static inline ScriptedTransfers* s_current = nullptr;
};

} // namespace Testing

extern "C" {
[[gnu::visibility("default")]] ssize_t write(int fd, const void* data, size_t count)
{
    return Testing::ScriptedTransfers::Covers(fd) ? Testing::ScriptedTransfers::Next(count)
                                                  : syscall(SYS_write, fd, data, count);
}
[[gnu::visibility("default")]] ssize_t read(int fd, void* data, size_t count)
{
    return Testing::ScriptedTransfers::Covers(fd) ? Testing::ScriptedTransfers::Next(count)
                                                  : syscall(SYS_read, fd, data, count);
}
}
