// Asks what may never answer, such as a file server that is gone, without waiting for ever.
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <thread>

namespace Agent {

/// The question's answer, or nothing if it takes longer than the limit. What the question raises passes
/// through. It is asked on a thread of its own, which is left behind when it doesn't answer: the question
/// owns all that it needs.
template <class Answer>
std::optional<Answer> AnswerWithin(std::chrono::milliseconds limit, std::function<Answer()> question)
{
    std::packaged_task<Answer()> task(std::move(question));
    std::future<Answer> answer = task.get_future();
    std::thread(std::move(task)).detach();
    if (answer.wait_for(limit) != std::future_status::ready)
        return std::nullopt;
    return answer.get();
}

} // namespace Agent
