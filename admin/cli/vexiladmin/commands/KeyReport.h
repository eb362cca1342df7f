/// What the key commands print.
#pragma once

#include "admin/client-interface/olm_dsess_admin.h"

/// Prints the key's label and time, and the time of the key before it if there is one, as one line.
void printKeyReport(const olm_dsess_admin_cluster_t& cluster);
