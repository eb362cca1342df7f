/// How `key show` and `key change` print the cluster's key.
#pragma once

#include "admin/client-interface/olm_dsess_admin.h"

/// Prints the key's label and time, and the time of the key before it if there is one, as one message and a line feed.
/// Throws std::bad_alloc.
void printKeyReport(const olm_dsess_admin_cluster_t& cluster);
