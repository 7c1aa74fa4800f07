#include "Krt/Log/YLogContext.h"

#include "Krt/Log/LogSite.h"
#include "Krt/Log/YLog.h"

#include <memory>
#include <string_view>
#include <utility>

namespace Krt::Log {

namespace {

// Variables without destructors, so they may be used after the thread's other objects are destroyed.
thread_local YLogContext* t_context = nullptr;
thread_local bool t_ended = false;

struct ContextOwner
{
    ~ContextOwner()
    {
        t_context = nullptr;
        t_ended = true;
    }
    std::unique_ptr<YLogContext> context;
};
thread_local ContextOwner t_owner;

// Removes the text, but keeps the memory that most messages need.
void Empty(std::string& text) noexcept
{
    constexpr std::size_t MostKept = 4096;
    if (text.capacity() > MostKept)
        std::string().swap(text);
    text.clear();
}

} // namespace

YLogContext::YLogContext() : YStream(YString()), m_type(MessageType::General) {}

YLogContext& YLogContext::OfThread(YLog& log)
{
    if (t_context == nullptr) {
        auto context = std::make_unique<YLogContext>();
        t_context = context.get();
        if (t_ended)
            context.release(); // nothing comes later that could destroy it
        else
            t_owner.context = std::move(context);
    }
    t_context->m_log = &log;
    return *t_context;
}

bool YLogContext::IsEmpty() const
{
    return m_text.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::out) == std::streampos(0);
}

// Moves the stream's own string: destructors of lines call this, possibly without memory for a copy.
std::string YLogContext::ExchangeText(std::string text)
{
    std::string unfinished = std::move(m_text).str();
    const bool isEmpty = text.empty();
    m_text.str(std::move(text));
    if (!isEmpty)
        m_text.seekp(0, std::ios::end);
    return unfinished;
}

// Most messages begin with an empty stream and leave an empty one, which keeps its memory.
std::string YLogContext::BeginText()
{
    m_text.clear(); // lack of memory may have set the stream's error flags
    m_text << std::dec;
    return IsEmpty() ? std::string() : ExchangeText(std::exchange(m_memory, {}));
}

void YLogContext::ContinueText(std::string text)
{
    m_text.clear();
    m_text << std::dec;
    if (!text.empty() || !IsEmpty())
        ExchangeText(std::move(text));
}

void YLogContext::FlushInternal()
{
    std::string text = BeginText();
    const std::string_view message = std::string_view(text).substr(0, text.find_last_not_of('\0') + 1);
    m_log->Write(SetType(MessageType::General), message, m_line);
    Empty(m_line);
    if (m_signal.MayHaveSlots())
        m_signal(YString(message));
    Empty(text);
    m_memory = std::move(text);
}

YLogLine::YLogLine(unsigned int type)
    : m_context(YLogContext::OfThread(*GetGlobalLogger())), m_outer(m_context.BeginText()),
      m_outerType(m_context.SetType(type))
{}

YLogLine::~YLogLine()
{
    m_context.ContinueText(std::move(m_outer));
    m_context.SetType(m_outerType);
}

YStream& YLogLine::Stream()
{
    return m_context;
}

} // namespace Krt::Log
