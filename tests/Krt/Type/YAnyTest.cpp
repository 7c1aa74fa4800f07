#include "Krt/Type/YAny.h"

#include "Krt/String/YString.h"
#include "testing/Raises.h"

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
    for (const auto& [name, cast] : rows) {
        SCOPED_TRACE(name);
        EXPECT_RAISES_ON(cast(), MessageType::Runtime, ErrorCode::InvalidArgument, "Cast", "Unable to cast ");
    }
}

} // namespace
