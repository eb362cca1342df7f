/// Which server a command asks, and under which identity.
#pragma once

#include "admin/client-interface/olm_dsess_admin.h"

/// The first two arguments of every operation on a server. They belong to the commands `set instance` and `login`.
struct ServerAccess {
    void* handle;
    const olm_dsess_admin_sec_info_t& secInfo;
};
