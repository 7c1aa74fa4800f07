#include "Krt/Log/YLogContext.h"

#include "Krt/Log/LogSite.h"
#include "Krt/Log/YLog.h"

#include <memory>
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

std::string YLogContext::ExchangeText(std::string text)
{
    // Moves the stream's own string: destructors of lines call this, possibly without memory for a copy. Lack
    // of memory may also have set the stream's error flags.
    m_text.clear();
    std::string unfinished = std::move(m_text).str();
    m_text.str(std::move(text));
    m_text.seekp(0, std::ios::end);
    m_text << std::dec;
    return unfinished;
}

void YLogContext::FlushInternal()
{
    const YString message(ExchangeText(std::string()));
    m_log->Write(SetType(MessageType::General), message);
    if (m_signal.MayHaveSlots())
        m_signal(message);
}

YLogLine::YLogLine(unsigned int type)
    : m_context(YLogContext::OfThread(*GetGlobalLogger())), m_outer(m_context.ExchangeText(std::string())),
      m_outerType(m_context.SetType(type))
{}

YLogLine::~YLogLine()
{
    m_context.ExchangeText(std::move(m_outer));
    m_context.SetType(m_outerType);
}

YStream& YLogLine::Stream()
{
    return m_context;
}

} // namespace Krt::Log
