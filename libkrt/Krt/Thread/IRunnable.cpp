#include "Krt/Thread/IRunnable.h"

#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Log/MessageType.h"

#include <utility>

namespace Krt::Thread {

IRunnable::IRunnable(boost::function<void()> function, YString name)
    : m_function(std::move(function)), m_name(std::move(name))
{}

// The error is written on a failure alone, so that a cancellation costs no more than the call.
void IRunnable::Run()
{
    if (m_function.empty())
        return;
    try {
        CallFunction(m_function);
    } catch (const Exception::YError& error) {
        m_error = error;
    } catch (const std::exception& failure) {
        m_error = Exception::TranslateYError(failure, MessageType::General, __LINE__, "Krt/Thread/IRunnable",
                                             __func__, YString());
    }
}

} // namespace Krt::Thread
