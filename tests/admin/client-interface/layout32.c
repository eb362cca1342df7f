/* The records' sizes on the 32-bit target, where each field takes four bytes and scripts/check-binaries knows their
   order; compiled with -m32, never run. */
#include "admin/client-interface/olm_dsess_admin.h"

#define SIZE(record, size) _Static_assert(sizeof(record) == (size), #record)

SIZE(olm_dsess_admin_mv_string_t, 8);
SIZE(olm_dsess_admin_ssl_info_t, 24);
SIZE(olm_dsess_admin_sec_info_t, 16);
SIZE(olm_dsess_admin_realm_t, 12);
SIZE(olm_dsess_admin_cluster_t, 12);
SIZE(olm_dsess_admin_replica_set_record_t, 8);
SIZE(olm_dsess_admin_session_query_t, 28);
SIZE(olm_dsess_admin_session_t, 12);
SIZE(olm_dsess_admin_free_info_t, 12);
