#include "agent/Access/TextFile.h"

#include "agent/Run/Input.h"

#include "Krt/Exception/Raise.h"

#include <unistd.h>
#include <utf8.h>

#include <iterator>

namespace Agent {

using Krt::YString;
using Repo::Bytes;
using Repo::ByteView;
using Repo::Secret;

namespace {

bool BeginsWith(ByteView bytes, std::string_view mark)
{
    return Repo::AsText(bytes).starts_with(mark);
}

Bytes FromUtf16(ByteView text, bool isBigEndian, const std::string& name)
{
    const auto invalid = [&name] {
        KRT_RAISE(Krt::ErrorCode::InvalidArgument, YString(name) << " is not valid UTF-16");
    };
    if (text.size() % 2 != 0)
        invalid();
    std::u16string units;
    units.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2)
        units += static_cast<char16_t>(isBigEndian ? text[i] << 8 | text[i + 1] : text[i + 1] << 8 | text[i]);
    Bytes bytes;
    bytes.reserve(2 * text.size());
    try {
        utf8::utf16to8(units.begin(), units.end(), std::back_inserter(bytes));
    } catch (const utf8::exception&) {
        Repo::Wipe(bytes);
        invalid();
    }
    Repo::Wipe({reinterpret_cast<unsigned char*>(units.data()), 2 * units.size()});
    return bytes;
}

// Converts the bytes, and returns the text in them without a byte order mark.
std::string_view ToUtf8(Bytes& bytes, const std::string& name)
{
    std::size_t mark = BeginsWith(bytes, "\xEF\xBB\xBF") ? 3 : 0;
    if (const bool isBig = BeginsWith(bytes, "\xFE\xFF"); isBig || BeginsWith(bytes, "\xFF\xFE")) {
        Bytes converted = FromUtf16(ByteView(bytes).subspan(2), isBig, name);
        bytes.swap(converted);
        Repo::Wipe(converted);
        mark = 0;
    }
    return Repo::AsText(ByteView(bytes).subspan(mark));
}

} // namespace

Secret TextOf(Bytes& bytes, const std::string& name)
{
    constexpr std::string_view White = " \t\r\n\v\f";
    const std::string_view text = ToUtf8(bytes, name);
    const std::size_t begin = std::min(text.find_first_not_of(White), text.size());
    const std::size_t end = text.find_last_not_of(White) + 1;
    Secret secret(Repo::AsBytes(text.substr(begin, end > begin ? end - begin : 0)));
    Repo::Wipe(bytes);
    bytes.clear();
    return secret;
}

Secret ReadTextFile(const std::string& path, std::size_t limit, const char* role)
{
    const Krt::Util::YUnxHandle file =
        KRT_OS_VALUE(OpenInput(path), "Failed to open " << role << ": " << path.c_str());
    Bytes bytes(limit + 1);
    std::size_t size = 0;
    while (size < bytes.size()) {
        WaitForInput(file.Get()); // a signal's handler restarts a read
        const auto count = KRT_SYSCALL(read(file.Get(), bytes.data() + size, bytes.size() - size),
                                       "Failed to read " << role << ": " << path.c_str());
        if (count == 0)
            break;
        size += static_cast<std::size_t>(count);
    }
    KRT_RAISE_UNLESS(size <= limit, Krt::ErrorCode::InvalidArgument,
                     "The file has more than " << static_cast<unsigned long>(limit)
                                               << " bytes: " << path.c_str());
    bytes.resize(size);
    return TextOf(bytes, path);
}

Bytes ReadListBytes(const std::string& path)
{
    constexpr std::size_t Limit = 512 << 20;
    constexpr std::size_t Block = 1 << 16;
    Krt::Util::YUnxHandle opened;
    if (path != "-")
        opened = KRT_OS_VALUE(OpenInput(path), "Failed to open file: " << path.c_str());
    const int descriptor = path == "-" ? STDIN_FILENO : opened.Get();
    Bytes bytes;
    for (std::size_t size = 0;;) {
        bytes.resize(size + Block);
        WaitForInput(descriptor);
        const auto count = KRT_SYSCALL(read(descriptor, bytes.data() + size, Block),
                                       "Failed to read file: " << path.c_str());
        size += static_cast<std::size_t>(count);
        KRT_RAISE_UNLESS(size <= Limit, Krt::ErrorCode::InvalidArgument,
                         "The file has more than " << static_cast<unsigned long>(Limit)
                                                   << " bytes: " << path.c_str());
        if (count == 0) {
            bytes.resize(size);
            return bytes;
        }
    }
}

std::string ReadListFile(const std::string& path)
{
    Bytes bytes = ReadListBytes(path);
    return std::string(ToUtf8(bytes, path));
}

} // namespace Agent
