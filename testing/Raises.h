// Checks of the error that a statement raises:
//     EXPECT_RAISES(GetRoot(), ErrorCode::EmptyJobPath, "GetRoot", "Cannot ...");
#pragma once

#include "Krt/Exception/YError.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace Testing {

/// Returns the YError that the call raises, or nothing.
template <class Call>
std::optional<Krt::Exception::YError> CatchError(Call call)
{
    try {
        call();
    } catch (const Krt::Exception::YError& error) {
        return error;
    }
    return std::nullopt;
}

/// Returns the errno of the operating-system error that the call raises, or 0.
template <class Call>
int OsErrorOf(Call call)
{
    const auto error = CatchError(call);
    return error ? error->GetOsError() : 0;
}

/// Returns "Function: message" of the error that the call raises, or "".
template <class Call>
std::string ErrorOf(Call call)
{
    const auto error = CatchError(call);
    return error ? error->GetFunction().Bytes() + ": " + error->GetMessage().Bytes() : std::string();
}

} // namespace Testing

/// Expects a general error on the channel General with this code, function and text.
#define EXPECT_RAISES(statement, code, function, text)                                                       \
    EXPECT_RAISES_ON(statement, Krt::MessageType::General, code, function, text)

#define EXPECT_RAISES_ON(statement, channel, code, function, text)                                           \
    EXPECT_RAISES_FULL(statement, Krt::Exception::ExceptionType::General, channel, code, function, text)

/// Expects an OsError with this errno.
#define EXPECT_RAISES_OS(statement, channel, error, function, text)                                          \
    do {                                                                                                     \
        const auto raised = ::Testing::CatchError([&] { statement; });                                       \
        ASSERT_TRUE(raised.has_value()) << #statement " raised nothing";                                     \
        EXPECT_EQ(raised->GetType(), Krt::Exception::ExceptionType::OsError);                                \
        EXPECT_EQ(raised->GetOsError(), error);                                                              \
        EXPECT_EQ(raised->GetMessageType(), static_cast<unsigned int>(channel));                             \
        EXPECT_EQ(raised->GetFunction().Bytes(), function);                                                  \
        EXPECT_EQ(raised->GetMessage().Bytes(), text);                                                       \
    } while (false)

#define EXPECT_RAISES_FULL(statement, type, channel, code, function, text)                                   \
    do {                                                                                                     \
        const auto raised = ::Testing::CatchError([&] { statement; });                                       \
        ASSERT_TRUE(raised.has_value()) << #statement " raised nothing";                                     \
        EXPECT_EQ(raised->GetType(), type);                                                                  \
        EXPECT_EQ(raised->GetMessageType(), static_cast<unsigned int>(channel));                             \
        EXPECT_EQ(raised->GetCode(), static_cast<unsigned int>(code));                                       \
        EXPECT_EQ(raised->GetFunction().Bytes(), function);                                                  \
        EXPECT_EQ(raised->GetMessage().Bytes(), text);                                                       \
    } while (false)
