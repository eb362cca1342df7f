/// UUIDs.
#pragma once

#include <cstdint>

#include <uuid/uuid.h>

struct qel_uuid_t {
    uuid_t bytes;
};

/// Makes a random UUID (RFC 4122, version 4). `status` receives 0 or, when the system gives no random bytes, EIO.
qel_uuid_t qel_uuid_create(std::uint32_t* status) noexcept;
/// Its 36-character text in lower case, released with qel_uuid_string_free; null on failure. `status` receives 0 or
/// ENOMEM.
char* qel_uuid_to_string(const qel_uuid_t& uuid, std::uint32_t* status) noexcept;
/// Releases the text and sets it to null. `status` receives 0.
void qel_uuid_string_free(char** text, std::uint32_t* status) noexcept;
