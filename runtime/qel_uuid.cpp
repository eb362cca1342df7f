#include "runtime/qel_uuid.h"

#include <uuid/uuid.h>

#include "runtime/qel_random.h"

static_assert(sizeof(QelUuidText) == UUID_STR_LEN);

std::optional<QelUuidText> qel_make_uuid() noexcept {
    // uuid_generate_random() would fall back to a weak generator, unnoticed, when the system gives no random bytes.
    uuid_t bytes;
    if (!qel_get_random_bytes(bytes, sizeof bytes)) {
        return std::nullopt;
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // the variant of RFC 4122
    QelUuidText text;
    uuid_unparse_lower(bytes, text.data());
    return text;
}
