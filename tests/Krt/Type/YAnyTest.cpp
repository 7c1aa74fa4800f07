#include "Krt/Type/YAny.h"

#include "Krt/String/YString.h"
#include "testing/Raises.h"

#include <functional>

using Krt::ErrorCode;
using Krt::MessageType;
using Krt::YString;
using Krt::Type::YAny;

namespace {

TEST(YAny, OtherTypeThanHeldRaises)
{
    YAny held(YString("text"));
    EXPECT_EQ(held.Cast<YString>(), "text");
    EXPECT_EQ(&held.Cast<YString>(), &YAny::Cast<YString>(&held));
    YAny number(7u);
    YAny empty;
    const std::pair<std::function<void()>, const char*> rows[] = {
        {[&] { held.Cast<bool>(); }, "another type"},
        {[&] { number.Cast<int>(); }, "a type of the same size"},
        {[&] { empty.Cast<bool>(); }, "empty"},
        {[] { YAny::Cast<bool>(nullptr); }, "null"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.second);
        EXPECT_RAISES_ON(row.first(), MessageType::Runtime, ErrorCode::InvalidArgument, "Cast",
                         "Unable to cast ");
    }
}

} // namespace
