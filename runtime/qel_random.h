/// Random bytes, base64 and UUIDs: what a login identifier is made of.
#pragma once

#include <cstddef>
#include <cstdint>

#include <uuid/uuid.h>

/// Fills a buffer from the system's random source (getrandom(2)). Returns 0 or kStatusNoRandom.
std::uint32_t qel_get_random_bytes(void* buffer, std::size_t length) noexcept;

/// Encodes in standard base64 with padding (RFC 4648, section 4) and a terminating NUL. Returns the length without the
/// NUL, or -1 with `output` untouched when `outputSize` is too small.
int qel_base64_std_encode(const unsigned char* input, std::size_t length, char* output,
                          std::size_t outputSize) noexcept;

struct qel_uuid_t {
    uuid_t bytes;
};

/// Makes a random UUID (RFC 4122, version 4). `status` receives 0 or kStatusNoUuid.
qel_uuid_t qel_uuid_create(std::uint32_t* status) noexcept;
/// Its 36-character text, released with qel_uuid_string_free; null on failure. `status` receives 0 or kStatusNoMemory.
char* qel_uuid_to_string(const qel_uuid_t& uuid, std::uint32_t* status) noexcept;
/// Releases the text and sets it to null. `status` receives 0.
void qel_uuid_string_free(char** text, std::uint32_t* status) noexcept;
