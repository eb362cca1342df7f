#include "runtime/qel_uuid.h"

#include <cerrno>
#include <cstdlib>

#include "runtime/qel_random.h"

// uuid_generate_random() would fall back to a weak generator, unnoticed, when the system gives no random bytes.
qel_uuid_t qel_uuid_create(std::uint32_t* status) noexcept {
    qel_uuid_t uuid{};
    *status = qel_get_random_bytes(uuid.bytes, sizeof uuid.bytes) ? 0 : EIO;
    uuid.bytes[6] = static_cast<unsigned char>((uuid.bytes[6] & 0x0F) | 0x40);  // version 4
    uuid.bytes[8] = static_cast<unsigned char>((uuid.bytes[8] & 0x3F) | 0x80);  // the variant of RFC 4122
    return uuid;
}

char* qel_uuid_to_string(const qel_uuid_t& uuid, std::uint32_t* status) noexcept {
    auto* text = static_cast<char*>(std::malloc(UUID_STR_LEN));
    if (text == nullptr) {
        *status = ENOMEM;
        return nullptr;
    }
    uuid_unparse_lower(uuid.bytes, text);
    *status = 0;
    return text;
}

void qel_uuid_string_free(char** text, std::uint32_t* status) noexcept {
    std::free(*text);
    *text = nullptr;
    *status = 0;
}
