// A piece of work of a thread, with a name and the failure that ended it.
#pragma once

#include "Krt/Exception/YError.h"
#include "Krt/String/YString.h"

#include <boost/function.hpp>

namespace Krt::Thread {

class KRT_API IRunnable
{
public:
    /// An empty function is allowed.
    IRunnable(boost::function<void()> function, YString name);
    virtual ~IRunnable() = default;

    /// Calls the function; does nothing if there is none. A YError that it raises is kept, not passed on.
    void Run();
    /// The name; lives as long as the runnable.
    const YString& GetName() const { return m_name; }
    /// The error that ended the last Run; an empty one if none did.
    const Exception::YError& GetError() const { return m_error; }

private:
    Exception::YError m_error;
    boost::function<void()> m_function;
    YString m_name;
};

} // namespace Krt::Thread
