/// The utility's trace: olmdsess_admin_client_trace, declared in olm_dsess_admin.h, and the level that filters it.
#pragma once

#include <cstdint>

#include "admin/client-interface/olm_dsess_admin.h"

/// Trace lines of this level and below are shown. Set once, at start-up.
extern std::int32_t g_debugLevel;

/// Whether the last line that was shown is one of level 0. The library uses that level to say why a request failed.
extern bool g_toldCause;
