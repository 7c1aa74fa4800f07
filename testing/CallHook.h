// Lets a test act between two system calls of the code under test, which are identified by the call and its
// entry, and replace calls. For executables that link TestingCalls.
#pragma once

#include "testing/Calls.h"
#include "testing/Program.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <string>
#include <unistd.h>
#include <utility>

namespace Testing {

/// A call that the hook has caught.
struct HookedCall
{
    std::string function;
    int descriptor;        ///< of the directory for a name, otherwise of the file itself
    std::string name;      ///< or the path of the file that the descriptor refers to
    std::string attribute; ///< the name of an extended attribute, or empty
    void* data;            ///< the buffer to fill, of `size` bytes
    std::size_t size;      ///< or the number of bytes to transfer
};

class CallHook
{
public:
    /// Calls the action before each call of the process, except those of the action itself, until the hook is
    /// destroyed. Calls of other threads wait for it.
    explicit CallHook(std::function<void(const HookedCall&)> action) : m_action(std::move(action))
    {
        s_current = this;
        g_callFilter = Ask;
    }
    ~CallHook() { s_current = nullptr; }
    CallHook(const CallHook&) = delete;
    CallHook& operator=(const CallHook&) = delete;

    /// In an action: the call returns this result without being made. Without `error`, errno stays unchanged.
    /// A close is made nevertheless, and calls that open something fail whatever the result is.
    static void Return(long result, std::optional<int> error = {})
    {
        s_result = result;
        s_error = error;
    }
    /// In an action: the call fails with this error.
    static void Fail(int error) { Return(-1, error); }
    /// In an action: the call fills its buffer with these bytes, or fails if they do not fit; if `size` is 0,
    /// it returns their number.
    static void Give(const HookedCall& call, const std::string& bytes)
    {
        if (call.size != 0 && call.size < bytes.size())
            return Fail(ERANGE);
        std::copy_n(bytes.begin(), std::min(call.size, bytes.size()), static_cast<char*>(call.data));
        Return(static_cast<long>(bytes.size()));
    }

private:
    static std::optional<long> Ask(const Call& call)
    {
        CallHook* const hook = s_isInAction ? nullptr : s_current.load();
        if (hook == nullptr)
            return std::nullopt;
        const int before = errno;
        const std::lock_guard guard(s_mutex);
        s_isInAction = true;
        hook->m_action({call.function, call.descriptor,
                        call.name != nullptr ? call.name : PathOf(call.descriptor),
                        call.attribute != nullptr ? call.attribute : "", call.data,
                        call.count != nullptr ? *call.count : call.size});
        s_isInAction = false;
        errno = std::exchange(s_error, std::nullopt).value_or(before);
        return std::exchange(s_result, std::nullopt);
    }
    static std::string PathOf(int descriptor)
    {
        char path[4096];
        const ssize_t size =
            readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), path, sizeof path);
        return std::string(path, static_cast<std::size_t>(size < 0 ? 0 : size));
    }

    std::function<void(const HookedCall&)> m_action;
    static inline std::atomic<CallHook*> s_current = nullptr;
    static inline std::mutex s_mutex;
    static inline thread_local bool s_isInAction = false;
    static inline std::optional<long> s_result;
    static inline std::optional<int> s_error;
};

/// Returns settings that run the program with this action before its calls.
inline ProgramSettings Hooked(const std::function<void(const HookedCall&)>& action)
{
    const auto prepare = [action] {
        static const CallHook hook(action);
    };
    return {.user = 0, .prepare = prepare, .isLinked = true};
}

} // namespace Testing
