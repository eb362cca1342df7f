#include "runtime/qel_base64.h"

#include <openssl/evp.h>

#include <climits>

int qel_base64_std_encode(const unsigned char* input, std::size_t length, char* output,
                          std::size_t outputSize) noexcept {
    if (length > INT_MAX / 4 * 3 || outputSize <= (length + 2) / 3 * 4) {
        return -1;
    }
    return EVP_EncodeBlock(reinterpret_cast<unsigned char*>(output), input, static_cast<int>(length));
}
