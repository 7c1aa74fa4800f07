#include "Krt/JSON/YValue.h"

#include "testing/LogCapture.h"
#include "testing/Raises.h"

#include <boost/weak_ptr.hpp>

#include <functional>
#include <thread>

using Krt::ErrorCode;
using Krt::MessageType;
using Krt::YString;
using Krt::JSON::YArray;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

YObject With(boost::shared_ptr<YValue> value)
{
    YObject object;
    object.Put("key", value);
    return object;
}

YObject With(const char* json)
{
    return With(YValue::Parse(json));
}

// "12", or the function and the text of the error.
template <class T>
std::string ConvertedText(const char* json)
{
    std::string converted;
    const std::string error =
        Testing::ErrorOf([&] { converted = std::to_string(YValue::Parse(json)->Convert<T>()); });
    return error + converted;
}

TEST(YValue, ConvertsBetweenKinds)
{
    const std::string no32 = "Convert: Unable to convert uint32_t";
    const std::string no64 = "Convert: Unable to convert uint64_t";
    const std::string noBool = "Convert: Unable to convert bool";
    const std::string overflow = "throw_exception: bad numeric conversion: positive overflow";
    const std::string noNumber = "StringToNumber: ";
    const struct
    {
        const char* name;
        const char* json;
        std::string asUnsigned, asLong, asBool;
    } rows[] = {
        {"zero", "0", "0", "0", "0"},
        {"two", "2", "2", "2", "1"},
        {"largest of 32 bits", "4294967295", "4294967295", "4294967295", "1"},
        {"one more", "4294967296", overflow, "4294967296", "1"},
        {"largest", "18446744073709551615", overflow, "18446744073709551615", "1"},
        {"true", "true", "1", "1", "1"},
        {"false", "false", "0", "0", "0"},
        {"digits", R"("12")", "12", "12", "1"},
        {"digits and more", R"("7 bytes")", "7", "7", noNumber},
        {"digits of 33 bits", R"("4294967296")", noNumber, "4294967296", noNumber},
        {"word of truth", R"("Yes")", noNumber, noNumber, "1"},
        {"word of untruth", R"("false")", noNumber, noNumber, "0"},
        {"empty text", R"("")", noNumber, noNumber, noBool},
        {"array", "[]", no32, no64, noBool},
        {"object", "{}", no32, no64, noBool},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(ConvertedText<unsigned int>(row.json), row.asUnsigned);
        EXPECT_EQ(ConvertedText<unsigned long long>(row.json), row.asLong);
        EXPECT_EQ(ConvertedText<bool>(row.json), row.asBool);
    }
}

TEST(YValue, OtherKindThanHeldRaises)
{
    const char* const values[] = {"1", "true", R"("x")", "[]", "{}"};
    const struct
    {
        std::string kind;
        std::function<void(const YValue&)> access;
        const char* function;
    } rows[] = {
        {"number", [](const YValue& value) { value.AsNumber(); }, "AsNumber"},
        {"bool", [](const YValue& value) { value.AsBool(); }, "AsBool"},
        {"string", [](const YValue& value) { value.AsString(); }, "AsString"},
        {"array", [](const YValue& value) { value.AsArray(); }, "AsArray"},
        {"object", [](const YValue& value) { value.AsObject(); }, "AsObject"},
    };
    for (std::size_t wanted = 0; wanted < std::size(rows); ++wanted) {
        for (std::size_t actual = 0; actual < std::size(values); ++actual) {
            if (wanted == actual) {
                EXPECT_NO_THROW(rows[wanted].access(*YValue::Parse(values[actual])));
                continue;
            }
            EXPECT_RAISES_ON(rows[wanted].access(*YValue::Parse(values[actual])), MessageType::Runtime,
                             ErrorCode::InvalidState, rows[wanted].function,
                             "JSON value is no " + rows[wanted].kind + ", but: " + rows[actual].kind);
        }
    }
}

TEST(YValue, FirstReadFixesType)
{
    const YObject object = With(R"("12")");
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
    const YObject word = With(R"("true")");
    EXPECT_TRUE(Testing::CatchError([&] { word.Get<unsigned int>("key", MessageType::Runtime); }));
    EXPECT_TRUE(word.Get<bool>("key", MessageType::Runtime));
}

TEST(YValue, EmptyArrayReadsAsEmptyObject)
{
    const YObject empty = With("[]");
    EXPECT_TRUE(empty.Get<YObject>("key", MessageType::Runtime).Entries().empty());
    EXPECT_TRUE(empty.Get<YArray>("key", MessageType::Runtime).empty());
    EXPECT_EQ(With(R"({"key":1})").Get<YObject>("key", MessageType::Runtime).Entries().size(), 1u);
}

TEST(YObject, FailedReadIsLoggedAndRaised)
{
    const Testing::LogCapture log({"Runtime"});
    const YObject object = With("[1]");
    const std::function<void()> get[] = {
        [&] { object.Get<unsigned long long>("key", MessageType::Runtime); },
        [&] { object.Get<YString>("key", MessageType::Runtime); },
        [&] { object.Get<YObject>("key", MessageType::Runtime); },
        [&] { object.Get<YArray>("other", MessageType::Runtime); },
    };
    const std::string texts[] = {"Unable to convert uint64_t", "JSON value is no string, but: array",
                                 "JSON value is no object, but: array", "JSON object has no key \"other\""};
    for (std::size_t i = 0; i < std::size(texts); ++i) {
        const auto error = Testing::CatchError(get[i]);
        ASSERT_TRUE(error) << texts[i];
        EXPECT_EQ(error->GetMessage().Bytes(), texts[i]);
        EXPECT_TRUE(log.Texts().back().starts_with("YObject: " + texts[i])) << log.Texts().back();
    }
    EXPECT_FALSE(object.FindOpt("other"));
    EXPECT_TRUE(Testing::CatchError([&] { object.Get<bool>("other", MessageType::FileIo); }));
    EXPECT_EQ(log.Lines().size(), std::size(texts)); // the others log nothing
    EXPECT_RAISES_ON(object.Find("other", MessageType::FileIo), MessageType::FileIo, ErrorCode::NotFound,
                     "Find", "JSON object has no key \"other\"");
}

TEST(YObject, KeepsOrderAndFindsKeysAtAnySize)
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
TEST(YValue, DeepChainsNeedNoRecursion)
{
    constexpr int Depth = 1000000;
    boost::shared_ptr<YValue> chain = YValue::Parse("1");
    const boost::shared_ptr<YValue> zero = YValue::Parse("0");
    boost::shared_ptr<YValue> middle;
    for (int i = 0; i < Depth; ++i) {
        chain = i % 2 ? YValue::Create<YArray>(YArray{zero, chain})
                      : boost::make_shared<YValue>(YValue::FromObject(With(chain)));
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

// More values than a thread keeps memory for; the last ones are destroyed while the thread exits.
TEST(YValue, DestroyedOnOtherThreadOrAtThreadExit)
{
    YArray made;
    std::thread([&] {
        static thread_local YArray held;
        for (unsigned int i = 0; i < 1000; ++i) {
            for (YArray* const array : {&held, &made})
                array->push_back(YValue::Create<unsigned long long>(i));
        }
    }).join();
    std::thread([&] { YArray(std::move(made)); }).join();
    EXPECT_EQ(YValue::Create<unsigned long long>(7)->AsNumber(), 7u);
}

TEST(YValue, SharesItselfAndExpires)
{
    boost::shared_ptr<YValue> value = YValue::Parse(R"(["a text that is not in the value itself"])");
    const boost::shared_ptr<YValue> element = value->AsArray()[0]->shared_from_this();
    const boost::weak_ptr<YValue> weak = value->shared_from_this();
    value.reset();
    const auto next = YValue::Create<bool>(true); // not in the memory of the expired value
    EXPECT_TRUE(weak.expired() && next->AsBool());
    EXPECT_EQ(element.use_count(), 1);
}

} // namespace
