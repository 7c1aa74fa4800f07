#include "Krt/File/YPath.h"

#include "Krt/Exception/Raise.h"
#include "Krt/String/Ascii.h"

#include <boost/container/small_vector.hpp>

#include <algorithm>
#include <cctype>

namespace Krt::File {

namespace {

constexpr char Separator[] = "/";

std::vector<YString> MakeVolumePrefixes()
{
    std::vector<YString> prefixes{"\\\\?\\", "\\\\?\\GLOBALROOT\\DEVICE\\HARDDISKVOLUMESHADOWCOPY",
                                  "\\\\?\\VOLUME{"};
    for (char drive = 'A'; drive <= 'Z'; ++drive)
        prefixes.push_back(YString("\\\\?\\") + YString(drive) + ":");
    std::sort(prefixes.begin(), prefixes.end());
    return prefixes;
}

bool IsLetter(char byte)
{
    return std::isalpha(static_cast<unsigned char>(byte)) != 0;
}

// The cuts below work on views of one text, so that a parent or a file name is copied once, at the end.

std::string_view WithoutSep(std::string_view path, char separator)
{
    if (path.size() == 1 && path.front() == separator)
        return path;
    return path.substr(0, path.find_last_not_of(separator) + 1);
}

std::string_view FileOf(std::string_view path, char separator)
{
    return path.substr(path.rfind(separator) + 1);
}

// A trailing "." is not a file name, so it is removed together with the name before it.
std::string_view WithoutFile(std::string_view path, char separator)
{
    std::string_view file;
    do {
        if (file == ".")
            path = WithoutSep(path, separator);
        file = FileOf(path, separator);
        path.remove_suffix(file.size());
    } while (file == ".");
    return WithoutSep(path, separator);
}

// The volume of a text that begins with one of the prefixes, such as \\?\C: or \\?\Volume{...}.
YString PrefixedVolume(const YString& path)
{
    std::string upper = path.Bytes();
    std::transform(upper.begin(), upper.end(), upper.begin(), String::ToUpper);
    const auto& prefixes = YPath::s_volumePrefixes;
    const auto bound = std::upper_bound(
        prefixes.begin(), prefixes.end(), upper,
        [](const std::string& text, const YString& prefix) { return text < prefix.Bytes(); });
    if (bound == prefixes.begin())
        return YString();
    const YString& prefix = *(bound - 1);
    if (!upper.starts_with(prefix.Bytes()))
        return YString();
    const unsigned int end = path.Find("\\", prefix.Length(), false);
    if (prefix.EndsWith("\\", true)) {
        const bool drive = end != YString::NotFound && end > 2 && path.At(end - 1) == ':' &&
                           IsLetter(path.At(end - 2)) && path.At(end - 3) == '\\';
        if (!drive)
            return YString();
    }
    return path.Left(end);
}

} // namespace

const std::vector<YString> YPath::s_volumePrefixes = MakeVolumePrefixes();

YPath::YPath(const YString& text) : YString(text)
{
    Initialize();
}

YPath::YPath(YString&& text) : YString(std::move(text))
{
    Initialize();
}

YPath::YPath(const char* text) : YString(text)
{
    Initialize();
}

YPath::YPath(const YPath& other) : YString(other)
{
    Initialize();
}

YPath::YPath(YPath&& other) noexcept
    : YString(std::move(other)), m_withSeparator(std::move(other.m_withSeparator)),
      m_components(std::move(other.m_components)),
      m_isSplit(other.m_isSplit.exchange(false, std::memory_order_relaxed))
{}

YPath& YPath::operator=(const YPath& other)
{
    if (this != &other) {
        YString::operator=(other);
        Initialize();
    }
    return *this;
}

YPath& YPath::operator=(YPath&& other) noexcept
{
    if (this != &other) {
        m_withSeparator = std::move(other.m_withSeparator);
        m_components = std::move(other.m_components);
        m_isSplit.store(other.m_isSplit.exchange(false, std::memory_order_relaxed),
                        std::memory_order_relaxed);
        YString::operator=(std::move(other));
    }
    return *this;
}

YPath::~YPath() = default;

void YPath::Initialize()
{
    if (Bytes().ends_with(Separator))
        YString::operator=(RemovePathSep(*this, Separator));
    m_withSeparator.reset();
    m_components.clear();
    m_isSplit.store(false, std::memory_order_relaxed);
}

YString YPath::ConvertToOsPathSep(const YString& path, const char* separator)
{
    std::string text = path.Bytes();
    std::replace(text.begin(), text.end(), '/', *separator);
    return YString(std::move(text));
}

YString YPath::RemovePathSep(const YString& path, const char* separator)
{
    return YString(WithoutSep(path.Bytes(), *separator));
}

YString YPath::AppendPathSep(const YString& path, const char* separator)
{
    if (path.Bytes().ends_with(*separator))
        return path;
    return path + YString(*separator);
}

YString YPath::PrependPathSep(const YString& path, const char* separator)
{
    if (path.Bytes().starts_with(*separator))
        return path;
    return *separator + path;
}

YString YPath::RemoveLeadingPathSep(const YString& path, const char* separator)
{
    const std::string_view text = path.Bytes();
    return YString(text.substr(std::min(text.find_first_not_of(*separator), text.size())));
}

YString YPath::AppendPaths(const YString& first, const YString& second, const char* separator)
{
    std::string_view tail = second.Bytes();
    tail.remove_prefix(std::min(tail.find_first_not_of(*separator), tail.size()));
    std::string joined;
    joined.reserve(first.Bytes().size() + 1 + tail.size());
    joined += first.Bytes();
    if (!joined.ends_with(*separator))
        joined += *separator;
    joined += tail;
    joined.resize(WithoutSep(joined, *separator).size());
    return YString(std::move(joined));
}

YString YPath::GetFileFromPath(const YString& path, const char* separator)
{
    return YString(FileOf(path.Bytes(), *separator));
}

YString YPath::RemoveFileFromPath(const YString& path, const char* separator)
{
    return YString(WithoutFile(path.Bytes(), *separator));
}

YString YPath::GetParentFromPath(const YString& path, const char* separator)
{
    const std::string_view text = path.Bytes();
    if (text.size() == 1 && text.front() == *separator)
        return path;
    const std::string_view rest = WithoutFile(WithoutSep(text, *separator), *separator);
    return YString(text.ends_with(*separator) ? rest : WithoutSep(rest, *separator));
}

YString YPath::RemoveLeadingPath(const YString& path, const YString& leading, const char*)
{
    if (!path.Bytes().starts_with(leading.Bytes()))
        return path;
    return YString(std::string_view(path.Bytes()).substr(leading.Bytes().size()));
}

YString YPath::GetVolumeFromPath(const YString& path)
{
    const std::string& text = path.Bytes();
    if (text.size() > 1 && text[1] == ':' && IsLetter(text[0]))
        return path.Left(2);
    // Each prefix begins with a backslash, so most paths return here, without a copy.
    if (!text.starts_with('\\'))
        return YString();
    return PrefixedVolume(AppendPathSep(path, Separator));
}

YString YPath::RemoveVolumeFromPath(const YString& path)
{
    const YString volume = GetVolumeFromPath(path);
    if (path == volume)
        return YString();
    YString rest = path;
    if (!volume.IsEmpty())
        rest.Replace(AppendPathSep(volume, Separator).CStr(), "", 0, 1, false);
    return rest;
}

namespace {

template <class Container>
Container SplitAtSeparators(const YString& path)
{
    const std::string_view text = path.Bytes();
    const YString volume = YPath::GetVolumeFromPath(path);
    // Every path of a walk is split: the pieces are counted before a container grows by them.
    boost::container::small_vector<std::string_view, 32> pieces;
    const std::string_view first = WithoutSep(volume.Bytes(), *Separator);
    if (!first.empty())
        pieces.push_back(first);
    // A volume that is the whole text may have gained a trailing separator.
    std::size_t begin = std::min(volume.Bytes().size(), text.size());
    while (begin < text.size()) {
        const std::size_t end = std::min(text.find(*Separator, begin), text.size());
        const std::string_view piece = text.substr(begin, end - begin);
        if (!piece.empty() && piece != ".")
            pieces.push_back(piece);
        begin = end + 1;
    }
    return Container(pieces.begin(), pieces.end());
}

} // namespace

template <>
std::list<YString> YPath::SplitRelativePath<std::list<YString>>(const YString& path)
{
    return SplitAtSeparators<std::list<YString>>(path);
}

template <>
std::vector<YString> YPath::SplitRelativePath<std::vector<YString>>(const YString& path)
{
    return SplitAtSeparators<std::vector<YString>>(path);
}

const YString& YPath::AsUnixPath(bool trailingSeparator) const
{
    if (!trailingSeparator)
        return *this;
    const Thread::SpinGuard guard(m_lock);
    if (!m_withSeparator)
        m_withSeparator = std::make_unique<YString>(AppendPathSep(*this, Separator));
    return *m_withSeparator;
}

YPath YPath::GetVolume() const
{
    return GetVolumeFromPath(AsUnixPath(true));
}

YPath YPath::RemoveVolume() const
{
    return RemoveVolumeFromPath(AsUnixPath(true));
}

YString YPath::GetComponent(unsigned int index) const
{
    const std::vector<YString>& components = PopulateComponents();
    KRT_RAISE_UNLESS(index < components.size(), ErrorCode::NoPathComponent,
                     "No path component at index " << index << " " << *this);
    return components[index];
}

const std::vector<YString>& YPath::PopulateComponents() const
{
    if (!m_isSplit.load(std::memory_order_acquire)) {
        const Thread::SpinGuard guard(m_lock);
        if (!m_isSplit.load(std::memory_order_relaxed)) {
            m_components = SplitRelativePath(*this);
            m_isSplit.store(true, std::memory_order_release);
        }
    }
    return m_components;
}

YPath YPath::Append(const YString& other) const
{
    return AppendPaths(*this, other, Separator);
}

YPath YPath::Append(const YPath& other) const
{
    return AppendPaths(*this, other, Separator);
}

YPath YPath::operator+(const YString& other) const
{
    return AppendPaths(*this, other, Separator);
}

YPath YPath::GetParent() const
{
    return GetParentFromPath(*this, Separator);
}

YPath YPath::RemoveFile() const
{
    return RemoveFileFromPath(*this, Separator);
}

YPath YPath::RemoveLeading(const YPath& leading) const
{
    return RemoveLeadingPath(*this, leading, Separator);
}

YPath YPath::AddLeadingSep() const
{
    const Thread::SpinGuard guard(m_lock);
    return PrependPathSep(*this, Separator);
}

bool YPath::IsChildOf(const YPath& parent, bool orEqual) const
{
    const std::string& path = AsUnixPath(true).Bytes();
    const std::string& root = parent.AsUnixPath(true).Bytes();
    return path.starts_with(root) && (orEqual || path.size() != root.size());
}

} // namespace Krt::File
