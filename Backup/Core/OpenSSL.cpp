#include "Backup/Core/OpenSSL.h"

#include "Krt/Exception/Raise.h"
#include "Krt/KrtFoundation/boostapi.h"

#include <openssl/err.h>
#include <openssl/rand.h>

namespace Backup::OpenSSL {

Krt::Memory::YHeap<unsigned char> RandomBytes(int count)
{
    Krt::Memory::YHeap<unsigned char> bytes;
    bytes.Resize(Krt::NumericCast<unsigned long>(count));
    const int size = Krt::NumericCast<int>(bytes.Size());
    // An empty heap has no address to give; OpenSSL is asked all the same, and its answer counts.
    if (RAND_bytes(size == 0 ? nullptr : static_cast<unsigned char*>(bytes), size) <= 0) {
        char text[256];
        ERR_error_string_n(ERR_get_error(), text, sizeof text);
        KRT_RAISE(ErrorCode::CryptoFailure, text);
    }
    return bytes;
}

} // namespace Backup::OpenSSL
