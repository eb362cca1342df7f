/// Writes requests (docs/protocol.md, "A request"):
///
///     {"jsonrpc":"2.0","id":7,"method":"trace.set","params":{"security":{"user":"root",...},"level":4,...}}
#pragma once

#include <cstdint>
#include <span>
#include <variant>

#include "admin/client-interface/olm_dsess_admin.h"
#include "runtime/SecretBuffer.h"

namespace olmdsess {

/// A parameter of a method, beside the security information.
struct RequestParameter {
    const char* name;
    std::variant<const char*, std::int32_t> value;
};

/// The text of a request. Throws std::bad_alloc.
SecretBuffer writeRequest(std::int32_t id, const char* method, const olm_dsess_admin_sec_info_t& security,
                          std::span<const RequestParameter> parameters);

}  // namespace olmdsess
