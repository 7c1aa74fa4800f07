#pragma once

/// @file
/// Conversion of bytes to Base64 text (RFC 4648, section 4) and back.

#include "Krt/Memory/YHeap.h"
#include "Krt/String/YString.h"

namespace Krt::Crypto {

/// Returns the text, padded and without line ends.
KRT_API YString Base64EncodeData(const Memory::YHeap<unsigned char>& data);
/// Returns the bytes. White space between characters is skipped. Raises InvalidArgument with the offset of
/// anything else that is not canonical Base64: another character, a wrong length, padding inside the text,
/// or unused bits that are not zero.
KRT_API Memory::YHeap<unsigned char> Base64DecodeData(const YString& text);

} // namespace Krt::Crypto
