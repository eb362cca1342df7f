/* The records as the 32-bit target lays them out; compiled with -m32, never run. */
#include <stddef.h>

#include "admin/client-interface/olm_dsess_admin.h"

#define SIZE(record, size) _Static_assert(sizeof(record) == (size), #record)
#define FIELD(record, field, offset) _Static_assert(offsetof(record, field) == (offset), #record "." #field)

SIZE(olm_dsess_admin_mv_string_t, 8);
FIELD(olm_dsess_admin_mv_string_t, count, 0);
FIELD(olm_dsess_admin_mv_string_t, values, 4);

SIZE(olm_dsess_admin_ssl_info_t, 24);
FIELD(olm_dsess_admin_ssl_info_t, server_dns, 0);
FIELD(olm_dsess_admin_ssl_info_t, keyfile, 8);
FIELD(olm_dsess_admin_ssl_info_t, keyfile_stash, 12);
FIELD(olm_dsess_admin_ssl_info_t, keyfile_label, 16);
FIELD(olm_dsess_admin_ssl_info_t, fips_enabled, 20);

SIZE(olm_dsess_admin_sec_info_t, 16);
FIELD(olm_dsess_admin_sec_info_t, user_name, 0);
FIELD(olm_dsess_admin_sec_info_t, reserved, 4);
FIELD(olm_dsess_admin_sec_info_t, login_id, 8);
FIELD(olm_dsess_admin_sec_info_t, password, 12);

SIZE(olm_dsess_admin_realm_t, 12);
FIELD(olm_dsess_admin_realm_t, name, 0);
FIELD(olm_dsess_admin_realm_t, replica_set_count, 4);
FIELD(olm_dsess_admin_realm_t, replica_set_names, 8);

SIZE(olm_dsess_admin_cluster_t, 12);
FIELD(olm_dsess_admin_cluster_t, key_label, 0);
FIELD(olm_dsess_admin_cluster_t, key_time, 4);
FIELD(olm_dsess_admin_cluster_t, second_time, 8);

SIZE(olm_dsess_admin_replica_set_record_t, 8);
FIELD(olm_dsess_admin_replica_set_record_t, name, 0);
FIELD(olm_dsess_admin_replica_set_record_t, time, 4);

SIZE(olm_dsess_admin_session_query_t, 28);
FIELD(olm_dsess_admin_session_query_t, realm, 0);
FIELD(olm_dsess_admin_session_query_t, selector_text1, 4);
FIELD(olm_dsess_admin_session_query_t, selector_text2, 8);
FIELD(olm_dsess_admin_session_query_t, value_list, 12);
FIELD(olm_dsess_admin_session_query_t, reserved1, 20);
FIELD(olm_dsess_admin_session_query_t, reserved2, 24);

SIZE(olm_dsess_admin_session_t, 12);
FIELD(olm_dsess_admin_session_t, first_text, 0);
FIELD(olm_dsess_admin_session_t, second_text, 4);
FIELD(olm_dsess_admin_session_t, time, 8);

SIZE(olm_dsess_admin_free_info_t, 12);
FIELD(olm_dsess_admin_free_info_t, kind, 0);
FIELD(olm_dsess_admin_free_info_t, count, 4);
FIELD(olm_dsess_admin_free_info_t, result, 8);
