/// How `replica set list` and `realm show` print the replica sets of realms.
#pragma once

#include "admin/cli/show/ServerAccess.h"
#include "admin/client-interface/olm_dsess_admin.h"

/// Prints the names of a realm's replica sets, indented, one a line.
void printReplicaSets(const olm_dsess_admin_realm_t& realm);

/// Fetches the cluster information and prints the replica sets of every realm that has exactly this name, or says that
/// there is none. Throws QelFailure.
void showRealm(const ServerAccess& server, const char* name);
