#include "Krt/Exception/Raise.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "testing/LogCapture.h"
#include "testing/Printed.h"
#include "testing/Raises.h"

#include <cerrno>
#include <csignal>
#include <functional>
#include <stdexcept>

using namespace Krt;
using Exception::YError;
using Exception::YErrorBase;
using Testing::CatchError;
using Testing::Printed;

namespace {

class Site
{
public:
    Site() = default;
    explicit Site(int) { KRT_RAISE(ErrorCode::InvalidArgument, "constructor"); }
    void Member() const { KRT_RAISE(ErrorCode::InvalidArgument); }
    template <class T>
    void Template(T value) const
    {
        KRT_RAISE_UNLESS(value == T(), ErrorCode::InvalidArgument, "value " << value);
    }
    operator int() const { KRT_RAISE_AS("operator int", MessageType::Runtime, ErrorCode::ValueConversion); }
    void Assert(int left) const { KRT_ASSERT(left == 0, "left over: " << left); }
    void Require(int left) const { KRT_REQUIRE(left == 0, "for certain"); }
};

YError Make(ExceptionType type, unsigned int code, const char* message)
{
    return Exception::MakeYError(type, MessageType::General, code, 1, "Krt/File/YPath", "GetComponent",
                                 message);
}

} // namespace

TEST(YError, SiteHasBareNamesAndPathWithoutExtension)
{
    struct
    {
        const char* name;
        void (*raise)();
        const char* function;
        const char* message;
    } const rows[] = {
        {"member", [] { Site().Member(); }, "Member", ""},
        {"constructor", [] { Site(1); }, "Site", "constructor"},
        {"template", [] { Site().Template(7); }, "Template", "value 7"},
        {"conversion", [] { static_cast<void>(static_cast<int>(Site())); }, "operator int", ""},
        {"lambda", [] { KRT_RAISE(ErrorCode::InvalidState, "from " << 1); }, "operator()", "from 1"},
    };
    for (const auto& row : rows) {
        const auto error = CatchError(row.raise);
        ASSERT_TRUE(error) << row.name;
        EXPECT_STREQ(error->GetFunction().CStr(), row.function) << row.name;
        EXPECT_STREQ(error->GetFile().CStr(), "tests/Krt/Exception/YErrorTest") << row.name;
        EXPECT_STREQ(error->GetMessage().CStr(), row.message) << row.name;
        EXPECT_GT(error->GetLine(), 0U) << row.name;
    }
}

TEST(YError, OsErrorKeepsNumberAndMapsToCode)
{
    const std::pair<int, unsigned int> rows[] = {
        {ENOTSUP, ErrorCode::AttributesUnavailable},
        {ENOMEM, ErrorCode::OutOfMemory},
        {EINVAL, ErrorCode::InvalidArgument},
        {ENAMETOOLONG, ErrorCode::InvalidArgument},
        {ENOENT, ErrorCode::NotFound},
        {ENOTDIR, ErrorCode::NotFound},
        {ENOSYS, ErrorCode::NotSupported},
        {EACCES, ErrorCode::InvalidState},
        {-5, ErrorCode::InvalidState},
    };
    for (const auto& row : rows) {
        const auto error = CatchError([&] {
            errno = row.first;
            KRT_RAISE_OS_ON(MessageType::FileStat, errno, "Failed " << (errno = 0));
        });
        ASSERT_TRUE(error) << row.first;
        EXPECT_EQ(error->GetOsError(), row.first);
        EXPECT_EQ(error->GetCode(), row.second) << row.first;
        EXPECT_EQ(error->GetMessageType(), static_cast<unsigned int>(MessageType::FileStat));
    }
}

// A call that a signal interrupts twice before it fails with the error, or succeeds for 0.
long CallInterruptedTwice(int error)
{
    int calls = 0;
    const auto call = [&] {
        errno = ++calls < 3 ? EINTR : error;
        return calls < 3 || error != 0 ? -1L : 7L;
    };
    return KRT_SYSCALL(call(), "Failed " << (errno = 0) << calls);
}

TEST(YError, SystemCallIsRetriedOnEintrAndItsErrorKept)
{
    EXPECT_EQ(CallInterruptedTwice(0), 7);
    EXPECT_EQ(errno, 0) << "an interruption is left";
    EXPECT_RAISES_OS(CallInterruptedTwice(ENOSPC), MessageType::General, ENOSPC, "CallInterruptedTwice",
                     "Failed 03");
    const auto withoutErrno = [] {
        errno = 0;
        return -1;
    };
    EXPECT_EQ(Util::CallSystem(withoutErrno).error, EIO) << "no failure passes for a success";
}

TEST(YError, IsStandardExceptionAndPrints)
{
    const auto general = ExceptionType::General;
    const struct
    {
        YError error;
        const char* what;
        const char* printed;
    } rows[] = {
        {Make(general, ErrorCode::NoPathComponent, "Too far"), "Too far",
         "Too far (General, NoPathComponent 66, GetComponent)"},
        {Make(general, ErrorCode::NoPathComponent, ""), "NoPathComponent",
         "(General, NoPathComponent 66, GetComponent)"},
        {Make(general, 4711, ""), "Krt::Exception::YError", "(General, 4711, GetComponent)"},
        {Make(ExceptionType::OsError, ENOENT, "Failed"), "Failed: No such file or directory",
         "Failed (OsError, ENOENT 2: No such file or directory, GetComponent)"},
        {Make(ExceptionType::OsError, ENOENT, ""), "No such file or directory",
         "(OsError, ENOENT 2: No such file or directory, GetComponent)"},
    };
    for (const auto& row : rows) {
        try {
            throw YError(row.error);
        } catch (const std::exception& caught) {
            EXPECT_STREQ(caught.what(), row.what);
        }
        std::ostringstream printed;
        printed << row.error;
        EXPECT_EQ(printed.str(), row.printed);
        EXPECT_EQ(Printed(row.error), row.printed);
    }
}

TEST(YError, CloneKeepsEveryField)
{
    const auto error = CatchError([] { Site(1); });
    ASSERT_TRUE(error);
    YError copy;
    static_cast<YErrorBase&>(copy) = YError(static_cast<const YErrorBase&>(*error));
    EXPECT_EQ(Printed(copy), Printed(*error));
    EXPECT_EQ(copy.GetStackTrace(), error->GetStackTrace());
    EXPECT_EQ(copy.GetLine(), error->GetLine());
}

TEST(YError, LibraryErrorNamesSourceModulesAndExports)
{
    const auto error = CatchError([] { YString("a").At(5); });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->GetFile().CStr(), "Krt/String/YString");
    const std::string stack = error->GetStackTrace().Bytes();
    EXPECT_NE(stack.find("libKrt.so"), std::string::npos) << stack;
    EXPECT_NE(stack.find("+0x"), std::string::npos) << stack;
    // An optimiser moves the raising part of a function to a section without a symbol.
    EXPECT_NE(stack.find("Krt::Exception::Raise("), std::string::npos) << stack;
}

TEST(YError, AssertionLogsAndRaisesDetail)
{
    const Testing::LogCapture log({"General"});
    EXPECT_RAISES(Site().Assert(3), ErrorCode::InvalidUse, "Assert", "left over: 3");
    EXPECT_EQ(log.Text(), "Site: Assertion failed for (left == 0); left over: 3\n");
}

TEST(YError, RequiredCheckPrintsAndRaisesBanner)
{
    testing::internal::CaptureStderr();
    const auto error = CatchError([] { Site().Require(1); });
    const std::string banner = testing::internal::GetCapturedStderr();
    EXPECT_EQ(error.value().GetMessage().Bytes(), banner);
    EXPECT_EQ(error->GetCode(), static_cast<unsigned int>(ErrorCode::InvalidUse));
    EXPECT_STREQ(error->GetFunction().CStr(), "Require");
    EXPECT_TRUE(banner.starts_with("******** Abort due to required check: 'left == 0' for certain\n"
                                   "******** ThreadId: 0x"))
        << banner;
    EXPECT_EQ(banner.back(), '\n');
}

TEST(YErrorDeathTest, AbortingCheckPrintsBannerAndAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto fail = [] {
        YStream detail{YString()};
        detail << "Mutex lock error " << 22 << Modifiers::EndLine;
        Exception::AbortRequiredCheck("!(error = call())", detail, 12, "Krt/Thread/X.cpp", "Lock");
    };
    EXPECT_EXIT(fail(), testing::KilledBySignal(SIGABRT),
                "^\\*{8} Abort due to required check: '!\\(error = call\\(\\)\\)' Mutex lock error 22\n\n"
                "\\*{8} ThreadId: 0x[0-9a-f]+\n\\*{8} ThreadName: .*\n"
                "\\*{8} Method: Lock Krt/Thread/X:12\n\\*{8} Stack: \n0x.*[^\n]$");
}

TEST(boostapi, BoostFailuresRaiseFromOnePlace)
{
    const std::pair<std::function<void()>, const char*> rows[] = {
        {[] { CallFunction(boost::function<void()>()); }, "call to empty boost::function"},
        {[] { NumericCast<unsigned int>(-1); }, "bad numeric conversion: negative overflow"},
        {[] { NumericCast<int>(1ULL << 40); }, "bad numeric conversion: positive overflow"},
    };
    for (const auto& row : rows) {
        EXPECT_RAISES(row.first(), ErrorCode::InvalidArgument, "throw_exception", row.second);
        const auto error = CatchError(row.first);
        EXPECT_STREQ(error->GetFile().CStr(), "Krt/KrtFoundation/boostapi");
        EXPECT_EQ(error->GetLine(), 12U);
    }
    EXPECT_THROW(CallFunction(boost::function<void()>([] { throw std::range_error("own"); })),
                 std::range_error);
}
