#include "Krt/Memory/YHeap.h"

#include "Krt/Debug/Debugger.h"
#include "Krt/Exception/Raise.h"

namespace Krt::Memory {

namespace Detail {

void RaiseResize(unsigned long size, const std::exception& cause)
{
    Debug::EnterDebugger();
    KRT_RAISE_AS("Resize", MessageType::General, ErrorCode::OutOfMemory,
                 "Failed to resize to " << Modifiers::ByteCount << size << " " << cause.what());
}

void RaiseRange(const char* function)
{
    KRT_RAISE_AS(function, MessageType::General, ErrorCode::InvalidArgument);
}

void RaiseEmpty(const IHeap& heap, const char* function)
{
    const YStream detail{YString()};
    Exception::FailAssertion(typeid(heap), "(Size() != 0)", detail, __LINE__, KRT_SOURCE_FILE, function);
}

} // namespace Detail

template class YHeap<unsigned char>;
template class YHeap<char>;
template class YHeap<wchar_t>;

// Weak, so that no compiler may assume at the calls that nothing happens here: a program may define the hook.
[[gnu::weak]] void ReportHeapResize(unsigned long long, unsigned long long) {}

} // namespace Krt::Memory
