/// Why the TLS settings cannot be used.
#pragma once

#include <cstdint>
#include <string>

namespace olmdsess {

/// Thrown while a context is made; the text is shown to the administrator at once.
struct TlsProblem {
    std::uint32_t status;
    std::string text;
};

}  // namespace olmdsess
