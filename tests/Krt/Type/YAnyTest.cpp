#include "Krt/Type/YAny.h"

#include "Krt/String/YString.h"
#include "testing/Raises.h"

#include <functional>

using Krt::ErrorCode;
using Krt::MessageType;
using Krt::YString;
using Krt::Type::YAny;

namespace {

TEST(YAny, GivesTheHeldTypeAlone)
{
    YAny held(YString("text"));
    EXPECT_EQ(held.Cast<YString>(), "text");
    EXPECT_EQ(&held.Cast<YString>(), &YAny::Cast<YString>(&held));
    YAny number(7u);
    YAny empty;
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"another type",
         [&] {
             held.Cast<bool>();
         }},
        {"a type of the same size",
         [&] {
             number.Cast<int>();
         }},
        {"empty",
         [&] {
             empty.Cast<bool>();
         }},
        {"null",
         [] {
             YAny::Cast<bool>(nullptr);
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.first);
        EXPECT_RAISES_ON(row.second(), MessageType::Runtime, ErrorCode::InvalidArgument, "Cast",
                         "Unable to cast ");
    }
}

} // namespace
