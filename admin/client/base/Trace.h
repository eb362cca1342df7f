/// The caller's trace function, with everything it needs to be called safely.
#pragma once

#include <cstdint>
#include <string>

#include "admin/client-interface/olm_dsess_admin.h"

namespace olmdsess {

inline constexpr std::int32_t kTraceAlways = 0;   ///< what an administrator must see at once: why a request failed
inline constexpr std::int32_t kTraceFailure = 1;  ///< each location tried and why it failed
inline constexpr std::int32_t kTraceFlow = 2;     ///< which location answered
inline constexpr std::int32_t kTraceMessage = 3;  ///< requests and answers, without passwords

/// Passes on whole lines. The text is never a format: it may come from a server.
class Trace {
  public:
    explicit Trace(olm_dsess_admin_trace_fn function) : m_function(function) {}

    /// What the function throws is passed over: whether a line could be shown changes nothing of what was done.
    void line(std::int32_t level, const std::string& text) const noexcept {
        try {
            if (m_function != nullptr) {
                m_function(level, "%s\n", text.c_str());
            }
        } catch (...) {
            return;
        }
    }

  private:
    olm_dsess_admin_trace_fn m_function;
};

}  // namespace olmdsess
