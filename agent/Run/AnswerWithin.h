// Asks what may never answer, such as a file server that is gone, without waiting for ever.
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

/// Whether a thread was left behind. It may come alive at any time, so the program must end without
/// destroying its static objects.
inline std::atomic<bool> g_isThreadLeftBehind{false};

/// The question's answer, or nothing if it takes longer than the limit. What the question raises passes
/// through, and an interrupted program raises InvalidState. It is asked on a thread of its own, which is left
/// behind when it doesn't answer: the question owns all that it needs.
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
