#pragma once

#include "Krt/Log/YStream.h"

#include <string>
#include <utility>

namespace Krt::Log {

class YLog;

/// A thread's own stream on the log: text up to Modifiers::EndLine becomes one message.
class YLogContext final : public YStream
{
public:
    YLogContext();
    /// Returns the calling thread's stream, whose messages are written to `log` from now on. It exists as
    /// long as the thread. It is recreated for objects of the thread that log while they are destroyed.
    static YLogContext& OfThread(YLog& log);

    /// Sets the channel of the message, which is General by default; returns the former one.
    unsigned int SetType(unsigned int type) { return std::exchange(m_type, type); }
    /// Replaces the unfinished message by an empty one, and returns it.
    std::string BeginText();
    /// Drops the unfinished message, and continues the one that BeginText has returned.
    void ContinueText(std::string text);

    /// Passes the text to the log and to the signal's slots. The next message starts empty and returns to
    /// the channel General.
    void FlushInternal() override;

private:
    bool IsEmpty() const;
    std::string ExchangeText(std::string text);

    YLog* m_log = nullptr;
    unsigned int m_type;
    std::string m_memory; // of the last message, empty
    std::string m_line;   // memory of its line
};

} // namespace Krt::Log
