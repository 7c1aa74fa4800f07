#pragma once

#include "Krt/Exception/YError.h"
#include "Krt/String/YString.h"

#include <boost/function.hpp>

namespace Krt::Thread {

/// A function of a thread, with a name and the error that ended it.
class KRT_API IRunnable
{
public:
    /// Stores the arguments; `function` may be empty.
    IRunnable(boost::function<void()> function, YString name);
    virtual ~IRunnable() = default;

    /// Calls the function; does nothing if it is empty. An exception of the function is stored and not
    /// passed on: a YError as it is, another std::exception converted to one.
    void Run();
    /// The name. Valid as long as the runnable.
    const YString& GetName() const { return m_name; }
    /// The error that ended the last Run; an empty error if it succeeded.
    const Exception::YError& GetError() const { return m_error; }

private:
    Exception::YError m_error;
    boost::function<void()> m_function;
    YString m_name;
};

} // namespace Krt::Thread
