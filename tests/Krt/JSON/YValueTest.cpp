#include "Krt/JSON/YValue.h"

#include "testing/LogCapture.h"
#include "testing/Raises.h"

#include <functional>

using Krt::ErrorCode;
using Krt::MessageType;
using Krt::YString;
using Krt::JSON::YArray;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

boost::shared_ptr<YValue> Share(YValue value)
{
    return boost::make_shared<YValue>(std::move(value));
}

boost::shared_ptr<YValue> Number(unsigned long long number)
{
    return Share(YValue::FromNumber(number));
}

boost::shared_ptr<YValue> Text(const char* text)
{
    return YValue::Create<YString>(text);
}

boost::shared_ptr<YValue> Bool(bool value)
{
    return Share(YValue::FromBool(value));
}

boost::shared_ptr<YValue> Array(YArray array = {})
{
    return YValue::Create<YArray>(std::move(array));
}

boost::shared_ptr<YValue> Object(YObject object = {})
{
    return Share(YValue::FromObject(std::move(object)));
}

YObject With(boost::shared_ptr<YValue> value)
{
    YObject object;
    object.Put("key", value);
    return object;
}

// "12", or the function and the text of the error.
template <class T>
std::string ConvertedText(const boost::shared_ptr<YValue>& value)
{
    std::string converted;
    const auto error = Testing::CatchError([&] { converted = std::to_string(value->Convert<T>()); });
    return error ? error->GetFunction().Bytes() + ": " + error->GetMessage().Bytes() : converted;
}

TEST(YValue, ConvertsByGenerousRules)
{
    const std::string no32 = "Convert: Unable to convert uint32_t";
    const std::string no64 = "Convert: Unable to convert uint64_t";
    const std::string noBool = "Convert: Unable to convert bool";
    const std::string overflow = "throw_exception: bad numeric conversion: positive overflow";
    const std::string noNumber = "StringToNumber: ";
    const struct
    {
        const char* name;
        boost::shared_ptr<YValue> value;
        std::string asUnsigned, asLong, asBool;
    } rows[] = {
        {"zero", Number(0), "0", "0", "0"},
        {"two", Number(2), "2", "2", "1"},
        {"largest of 32 bits", Number(4294967295), "4294967295", "4294967295", "1"},
        {"one more", Number(4294967296), overflow, "4294967296", "1"},
        {"largest", Number(~0ULL), overflow, "18446744073709551615", "1"},
        {"true", Bool(true), "1", "1", "1"},
        {"false", Bool(false), "0", "0", "0"},
        {"digits", Text("12"), "12", "12", "1"},
        {"digits and more", Text("7 bytes"), "7", "7", noNumber},
        {"digits of 33 bits", Text("4294967296"), noNumber, "4294967296", noNumber},
        {"word of truth", Text("Yes"), noNumber, noNumber, "1"},
        {"word of untruth", Text("false"), noNumber, noNumber, "0"},
        {"empty text", Text(""), noNumber, noNumber, noBool},
        {"array", Array(), no32, no64, noBool},
        {"object", Object(), no32, no64, noBool},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(ConvertedText<unsigned int>(row.value), row.asUnsigned);
        EXPECT_EQ(ConvertedText<unsigned long long>(row.value), row.asLong);
        EXPECT_EQ(ConvertedText<bool>(row.value), row.asBool);
    }
}

TEST(YValue, GivesItsContentAsItsOwnKindAlone)
{
    const boost::shared_ptr<YValue> values[] = {Number(1), Bool(true), Text("x"), Array(), Object()};
    const struct
    {
        const char* kind;
        const char* function;
        std::function<void(const YValue&)> access;
    } rows[] = {
        {"number", "AsNumber",
         [](const YValue& value) {
             value.AsNumber();
         }},
        {"bool", "AsBool",
         [](const YValue& value) {
             value.AsBool();
         }},
        {"string", "AsString",
         [](const YValue& value) {
             value.AsString();
         }},
        {"array", "AsArray",
         [](const YValue& value) {
             value.AsArray();
         }},
        {"object", "AsObject",
         [](const YValue& value) {
             value.AsObject();
         }},
    };
    for (std::size_t wanted = 0; wanted < std::size(rows); ++wanted) {
        for (std::size_t actual = 0; actual < std::size(values); ++actual) {
            if (wanted == actual) {
                EXPECT_NO_THROW(rows[wanted].access(*values[actual]));
                continue;
            }
            EXPECT_RAISES_ON(rows[wanted].access(*values[actual]), MessageType::Runtime,
                             ErrorCode::InvalidState, rows[wanted].function,
                             std::string("JSON value is no ") + rows[wanted].kind +
                                 ", but: " + rows[actual].kind);
        }
    }
}

TEST(YValue, ConvertsOnceAndKeepsTheTypeOfTheFirstRead)
{
    const YObject object = With(Text("12"));
    const unsigned int& first = object.Get<unsigned int>("key", MessageType::Runtime);
    EXPECT_EQ(first, 12u);
    EXPECT_EQ(&first, &object.Get<unsigned int>("key", MessageType::Runtime));
    EXPECT_EQ(&first, &object.Find("key", MessageType::Runtime)->Get<unsigned int>());
    EXPECT_RAISES_ON(object.Get<bool>("key", MessageType::Runtime), MessageType::Runtime,
                     ErrorCode::InvalidArgument, "Cast", "Unable to cast ");
    EXPECT_RAISES_ON(object.Get<unsigned long long>("key", MessageType::Runtime), MessageType::Runtime,
                     ErrorCode::InvalidArgument, "Cast", "Unable to cast ");
    // Texts and arrays are never cached.
    EXPECT_EQ(&object.Get<YString>("key", MessageType::Runtime), &object.FindOpt("key")->AsString());
    // A read that fails leaves the cache empty.
    const YObject word = With(Text("true"));
    EXPECT_TRUE(Testing::CatchError([&] { word.Get<unsigned int>("key", MessageType::Runtime); }));
    EXPECT_TRUE(word.Get<bool>("key", MessageType::Runtime));
}

TEST(YValue, ReadsAnEmptyArrayAsAnEmptyObject)
{
    const YObject empty = With(Array());
    EXPECT_TRUE(empty.Get<YObject>("key", MessageType::Runtime).Entries().empty());
    EXPECT_TRUE(empty.Get<YObject>("key", MessageType::Runtime).Entries().empty());
    EXPECT_TRUE(empty.Get<YArray>("key", MessageType::Runtime).empty());
    EXPECT_EQ(With(Object(With(Number(1)))).Get<YObject>("key", MessageType::Runtime).Entries().size(), 1u);
    EXPECT_RAISES_ON(With(Array({Number(1)})).Get<YObject>("key", MessageType::Runtime), MessageType::Runtime,
                     ErrorCode::InvalidState, "AsObject", "JSON value is no object, but: array");
}

TEST(YObject, LogsAFailedReadAndPassesItOn)
{
    const Testing::LogCapture log({"Runtime"});
    const YObject object = With(Array({Number(1)}));
    const std::pair<std::string, std::function<void()>> rows[] = {
        {"Unable to convert uint64_t",
         [&] {
             object.Get<unsigned long long>("key", MessageType::Runtime);
         }},
        {"JSON value is no string, but: array",
         [&] {
             object.Get<YString>("key", MessageType::Runtime);
         }},
        {"JSON value is no object, but: array",
         [&] {
             object.Get<YObject>("key", MessageType::Runtime);
         }},
        {"JSON object has no key \"other\"",
         [&] {
             object.Get<YArray>("other", MessageType::Runtime);
         }},
    };
    for (const auto& [text, read] : rows) {
        const auto error = Testing::CatchError(read);
        ASSERT_TRUE(error) << text;
        EXPECT_EQ(error->GetMessage().Bytes(), text);
        EXPECT_EQ(log.Texts().back().rfind("YObject: " + text, 0), 0u) << log.Texts().back();
    }
    EXPECT_FALSE(object.FindOpt("other"));
    EXPECT_TRUE(Testing::CatchError([&] { object.Get<bool>("other", MessageType::FileIo); }));
    EXPECT_EQ(log.Lines().size(), std::size(rows)); // the others log nothing
    EXPECT_RAISES_ON(object.Find("other", MessageType::FileIo), MessageType::FileIo, ErrorCode::NotFound,
                     "Find", "JSON object has no key \"other\"");
}

TEST(YObject, KeepsTheOrderAndFindsEachKeySmallOrLarge)
{
    for (const unsigned int count : {1u, 31u, 32u, 33u, 34u, 5000u}) {
        SCOPED_TRACE(count);
        YObject object;
        for (unsigned int i = 0; i < count; ++i)
            object.Set<unsigned int>(YString(std::to_string(i).c_str()), i);
        const auto replaced = object.Set<YString>("0", "again");
        YObject copy = object;
        object = YObject();
        const YObject moved = std::move(copy);
        ASSERT_EQ(moved.Entries().size(), count);
        EXPECT_EQ(moved.Entries().front().second, replaced);
        for (unsigned int i = 1; i < count; ++i) {
            const YString key(std::to_string(i).c_str());
            EXPECT_EQ(moved.Entries()[i].first, key);
            EXPECT_EQ(moved.FindOpt(key)->AsNumber(), i);
        }
        EXPECT_FALSE(moved.FindOpt("none"));
        object.Set<unsigned int>("1", 1); // both stay usable
        copy.Set<unsigned int>("2", 2);
        EXPECT_TRUE(object.FindOpt("1") && copy.FindOpt("2"));
    }
}

// A chain of arrays and objects in turn, with a share held halfway down.
TEST(YValue, DeepChainsAreWrittenAndDestroyedWithoutRecursion)
{
    constexpr int Depth = 1000000;
    boost::shared_ptr<YValue> chain = Number(1);
    boost::shared_ptr<YValue> middle;
    for (int i = 0; i < Depth; ++i) {
        chain = i % 2 ? Array({Number(0), chain}) : Object(With(chain));
        if (i == Depth / 2)
            middle = chain;
    }
    std::string text;
    chain->StringifyTo(text);
    EXPECT_EQ(text.substr(0, 20), "[0,{\"key\":[0,{\"key\":");
    EXPECT_EQ(text.size(), Depth / 2 * std::string("[0,{\"key\":}]").size() + 1);
    YObject holder = With(std::move(chain));
    holder = YObject();
    EXPECT_EQ(middle.use_count(), 1);
    EXPECT_EQ(middle->AsObject().FindOpt("key")->AsArray().size(), 2u);
}

} // namespace
