// Base64 text (RFC 4648, section 4) of a byte buffer and back.
#pragma once

#include "Krt/Memory/YHeap.h"
#include "Krt/String/YString.h"

namespace Krt::Crypto {

/// The text, padded, without line ends.
KRT_API YString Base64EncodeData(const Memory::YHeap<unsigned char>& data);
/// White space between characters is skipped. Raises InvalidArgument, naming the place, on anything else that
/// no encoder writes: another character, a wrong length, padding inside.
KRT_API Memory::YHeap<unsigned char> Base64DecodeData(const YString& text);

} // namespace Krt::Crypto
