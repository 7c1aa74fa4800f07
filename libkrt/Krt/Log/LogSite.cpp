#include "Krt/Log/LogSite.h"

#include "Krt/Log/YLogContext.h"

namespace Krt::Log {

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
