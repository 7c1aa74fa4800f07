#include "agent/Repository/Failure.h"

#include <cerrno>

namespace Agent::Repo {

namespace {

Krt::ErrorCode::Value CodeOf(Failure failure)
{
    switch (failure) {
    case Failure::NoRepository:
    case Failure::Missing:
        return Krt::ErrorCode::NotFound;
    case Failure::WrongPassword:
        return Krt::ErrorCode::CryptoFailure;
    case Failure::NoMemory:
        return Krt::ErrorCode::OutOfMemory;
    default:
        return Krt::ErrorCode::InvalidState;
    }
}

} // namespace

RepositoryError::RepositoryError(Failure failure, const YError& cause, const Krt::YString& prefix,
                                 const Krt::YString& suffix)
    : YError(cause), m_failure(failure)
{
    m_message = prefix + m_message + suffix;
    if (!m_what.IsEmpty())
        m_what = prefix + m_what;
}

bool RepositoryError::IsOfFile() const
{
    return m_failure == Failure::Damaged || m_failure == Failure::Missing || GetOsError() == EIO;
}

bool RepositoryError::IsOfLocation() const
{
    const bool isOfKind = m_failure == Failure::Backend || m_failure == Failure::Unreachable ||
                          m_failure == Failure::NoRepository;
    return isOfKind && !IsOfFile() && GetOsError() != ELOOP; // a symbolic link in the file's place
}

void RaiseFailure(Failure failure, unsigned int line, const char* file, const char* function,
                  const Krt::YStream& message)
{
    try {
        Krt::Exception::Raise(Krt::ExceptionType::General, Krt::MessageType::General, CodeOf(failure), line,
                              file, function, message);
    } catch (const Krt::Exception::YError& error) {
        throw RepositoryError(failure, error);
    }
}

void RaiseNamed(const Krt::Exception::YError& error, const Krt::YString& prefix)
{
    if (const auto* const known = dynamic_cast<const RepositoryError*>(&error))
        throw RepositoryError(known->GetFailure(), error, prefix);
    if (error.GetType() != Krt::ExceptionType::OsError)
        throw;
    throw RepositoryError(Failure::Backend, error, prefix);
}

} // namespace Agent::Repo
