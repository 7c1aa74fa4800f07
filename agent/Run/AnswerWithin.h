// Makes calls that may never return, such as those to an unreachable file server, with a time limit.
#pragma once

#include "agent/Run/Interrupt.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <thread>

namespace Agent {

/// True if a thread was abandoned. It may continue at any time, so the program must end without destroying
/// its static objects.
inline std::atomic<bool> g_isThreadLeftBehind{false};

/// Returns the question's answer, or nothing if it takes longer than the limit. Exceptions of the question
/// are passed on, and an interrupted program raises InvalidState. The question runs on its own thread, which
/// is abandoned if it does not answer, so the question must own everything that it uses.
template <class Answer>
std::optional<Answer> AnswerWithin(std::chrono::milliseconds limit, std::function<Answer()> question)
{
    std::packaged_task<Answer()> task(std::move(question));
    std::future<Answer> answer = task.get_future();
    std::thread(std::move(task)).detach();
    const auto end = std::chrono::steady_clock::now() + limit;
    constexpr std::chrono::milliseconds slice(100);
    while (answer.wait_until(std::min(end, std::chrono::steady_clock::now() + slice)) !=
           std::future_status::ready) {
        if (!IsInterrupted() && std::chrono::steady_clock::now() < end)
            continue;
        g_isThreadLeftBehind = true;
        KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState, "Interrupted");
        return std::nullopt;
    }
    return answer.get();
}

} // namespace Agent
