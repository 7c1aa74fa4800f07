#include "Krt/Memory/YHeap.h"

#include "testing/LogCapture.h"
#include "testing/Raises.h"

#include <limits>

using Krt::ErrorCode;
using Krt::Memory::YHeap;

namespace {
using Bytes = YHeap<unsigned char>;
using Reports = std::vector<std::pair<unsigned long long, unsigned long long>>;
constexpr unsigned long Huge = std::numeric_limits<unsigned long>::max();
Reports* g_reports = nullptr; // not null while resizes are recorded
} // namespace

// Replaces the library's.
void Krt::Memory::ReportHeapResize(unsigned long long oldSize, unsigned long long newSize)
{
    if (g_reports != nullptr)
        g_reports->emplace_back(oldSize, newSize);
}

TEST(YHeap, SizeChangeIsReportedBeforehand)
{
    Reports reports;
    g_reports = &reports;
    {
        Bytes heap("abc", 3);
        heap.Resize(5);
        Bytes other("x", 1);
        heap = std::move(other);
        other.Resize(0);
        static_cast<void>(Testing::CatchError([&] { heap.Resize(Huge); }));
    }
    g_reports = nullptr;
    EXPECT_EQ(reports, (Reports{{0, 3}, {3, 5}, {0, 1}, {5, 0}, {0, 0}, {1, Huge}, {0, 0}, {1, 0}}));
}

TEST(YHeap, ResizeKeepsContentAndZeroesRest)
{
    YHeap<char> heap("abc", 3);
    const auto bytes = [](YHeap<char>& of) {
        return std::string(of.Cast<char>(), of.Size());
    };
    heap.Resize(5);
    EXPECT_EQ(bytes(heap), std::string("abc\0\0", 5));
    heap.Resize(2);
    EXPECT_EQ(bytes(heap), "ab");
    EXPECT_RAISES(heap.Resize(Huge), ErrorCode::OutOfMemory, "Resize",
                  "Failed to resize to 18446744073709551615 vector::reserve");
    YHeap<char> copy = heap;
    copy.Copy(1, "X", 1);
    EXPECT_EQ(bytes(heap), "ab");
    copy = std::move(heap);
    EXPECT_EQ(heap.Size(), 0U);
    YHeap<char>& itself = copy;
    copy = std::move(itself);
    EXPECT_EQ(bytes(copy), "ab");
}

TEST(YHeap, RangeOutsideRaises)
{
    Bytes heap("0123456789", 10);
    Bytes empty;
    const struct
    {
        const char* name;
        std::function<void()> call;
        const char* failing; // the function that the error names; null for success
    } cases[] = {
        {"offset at the end", [&] { heap.RawOffset<char>(10, 0); }, nullptr},
        {"offset after the end", [&] { heap.RawOffset<char>(11, 0); }, "RawOffset"},
        {"a byte after the end", [&] { heap.RawOffset<char>(10, 1); }, "RawOffset"},
        {"offset and length that wrap", [&] { heap.RawOffset<char>(2, Huge); }, "RawOffset"},
        {"no byte of an empty heap", [&] { empty.RawOffset<char>(0, 0); }, "Cast"},
        {"offset after an empty heap", [&] { empty.RawOffset<char>(1, 0); }, "RawOffset"},
        {"copy of nothing into nothing", [&] { empty.Copy(0, nullptr, 0); }, nullptr},
        {"copy of nothing after the end", [&] { heap.Copy(11, nullptr, 0); }, "Copy"},
        {"copy beyond the end", [&] { heap.Copy(8, "abc", 3); }, "Copy"},
        {"exact cast", [&] { Bytes("12345678", 8).Cast<unsigned long long>(); }, nullptr},
        {"cast to something larger", [&] { Bytes("1234567", 7).Cast<unsigned long long>(); }, "Cast"},
    };
    for (const auto& [name, call, failing] : cases) {
        const auto raised = Testing::CatchError(call);
        EXPECT_EQ(raised.has_value(), failing != nullptr) << name;
        if (raised && failing != nullptr) {
            EXPECT_EQ(raised->GetFunction(), failing) << name;
            EXPECT_EQ(raised->GetCode(), ErrorCode::InvalidArgument) << name;
        }
    }
}

TEST(YHeap, EmptyHeapIsNull)
{
    const Testing::LogCapture log({"General"});
    EXPECT_RAISES((void)static_cast<unsigned char*>(Bytes()), ErrorCode::InvalidUse,
                  "operator unsigned char *", "");
    EXPECT_RAISES((void)static_cast<char*>(YHeap<char>()), ErrorCode::InvalidUse, "operator char *", "");
    ASSERT_EQ(log.Texts().size(), 2U);
    EXPECT_TRUE(log.Texts()[0].ends_with(": Assertion failed for (Size() != 0); ")) << log.Texts()[0];
    EXPECT_TRUE(log.Texts()[0].starts_with("YHeap<")) << log.Texts()[0];
}
