// How operations on a repository fail. They raise a RepositoryError: a YError that also has the kind of the
// failure, by which the program chooses its exit code. A message begins with the file's path in the layout of
// repositories ("index/30d9...: ") and names the position in it. It never contains a key, a password or
// plaintext. Broken preconditions raise a plain YError with InvalidArgument.
#pragma once

#include "Krt/Exception/Raise.h"

#include <utility>

namespace Agent::Repo {

/// Kind of a failure.
enum class Failure
{
    NoRepository,  ///< the location has no repository, or one of an unknown version
    WrongPassword, ///< no key file can be opened with the password
    Damaged,       ///< a file or blob is not what a writer stored, or breaks the format
    Missing,       ///< a file or blob that should exist does not
    Backend,       ///< the location of the files can't be read or written
    Unreachable,   ///< as Backend; no connection to the server can be made
    NoMemory       ///< there is not enough memory for a blob
};

class RepositoryError : public Krt::Exception::YError
{
public:
    /// Copies `cause` and puts `prefix` before its message, and `suffix` after it.
    RepositoryError(Failure failure, const Krt::Exception::YError& cause, const Krt::YString& prefix = {},
                    const Krt::YString& suffix = {});

    Failure GetFailure() const { return m_failure; }
    /// Returns true if it is the file that is damaged or missing, or is in a bad place of a disk, so that
    /// another attempt would fail as well.
    bool IsOfFile() const;
    /// Returns true if the reason may be outside of the file: in the connection, in the server, or in the
    /// user's rights.
    bool IsOfLocation() const;

private:
    Failure m_failure;
};

/// Throws a RepositoryError for the site. Its code is NotFound for NoRepository and Missing, CryptoFailure
/// for WrongPassword, OutOfMemory for NoMemory, otherwise InvalidState. Use the macro below.
[[noreturn, gnu::cold]] void RaiseFailure(Failure failure, unsigned int line, const char* file,
                                          const char* function, const Krt::YStream& message);

/// Throws the error that is being handled again. A RepositoryError gets `prefix` before its message. An error
/// of the operating system becomes a RepositoryError of the kind Backend, too. Other errors are thrown
/// unchanged.
[[noreturn, gnu::cold]] void RaiseNamed(const Krt::Exception::YError& error, const Krt::YString& prefix);

/// Calls `call` and returns its result. A YError is raised again by RaiseNamed with the prefix that
/// `describe` returns.
template <class Describe, class Call>
auto Named(const Describe& describe, const Call& call)
{
    try {
        return call();
    } catch (const Krt::Exception::YError& error) {
        RaiseNamed(error, describe());
    }
}

} // namespace Agent::Repo

/// Raises a failure of the kind with a streamed text.
#define REPOSITORY_RAISE(failure, ...)                                                                       \
    do {                                                                                                     \
        ::Krt::YStream krtMessage{::Krt::YString()};                                                         \
        static_cast<void>(krtMessage << __VA_ARGS__);                                                        \
        ::Agent::Repo::RaiseFailure(failure, __LINE__, KRT_SOURCE_FILE, __func__, krtMessage);               \
    } while (false)
/// REPOSITORY_RAISE if the condition is false. The text is built only then.
#define REPOSITORY_RAISE_UNLESS(condition, failure, ...)                                                     \
    do {                                                                                                     \
        if (!(condition)) [[unlikely]]                                                                       \
            REPOSITORY_RAISE(failure, __VA_ARGS__);                                                          \
    } while (false)
