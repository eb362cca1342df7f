/// How every part of the library tells that it cannot go on.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "catalogue/qel_messages.h"

namespace olmdsess {

/// Thrown when something fails, except when memory runs out: that is std::bad_alloc.
struct Failure {
    std::uint32_t status;  ///< what the function of the C interface returns
    std::string cause;     ///< in words, for the administrator
};

/// What a server sent is not an answer. `why` speaks of "it".
inline Failure notUnderstood(std::string_view why) {
    return {kStatusAnswerNotUnderstood, std::string("answer not understood: ").append(why)};
}

}  // namespace olmdsess
