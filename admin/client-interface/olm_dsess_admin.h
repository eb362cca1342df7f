/** The admin client library of the session server: records, operations, release requests, trace callback.
 *
 * The utility is linked to the name libolmdsess-admin-client.so.1 and uses nothing else of the library than what this
 * header declares, so that another library with the same functions may stand in its place; all that such a library has
 * to know stands here. What lies between library and server is the library's own affair.
 *
 * Valid C11 and C++. Rules that hold for every declaration below:
 *
 *  1. A context and a handle are opaque. A context is made for the locations of one server instance; handles
 *     are made from it and released before it is shut down. After olm_dsess_admin_shutdown a new context can be
 *     made.
 *  2. A status of 0 is success. Any other value is an identifier of the utility's message catalogue, one of
 *     OLM_DSESS_ADMIN_STATUS_*, that says what went wrong and what to do. The utility shows it once as a
 *     message and exits with its low byte, which must not be 0. Of a value that the catalogue lacks it shows
 *     the eight hexadecimal digits, and that there is no text for them; otherwise it is a failure like any
 *     other.
 *  3. No operation ends the process or throws, and only olm_dsess_admin_interrupt ends one early. A null
 *     handle, context or required argument is answered with a status.
 *  4. Text is NUL-terminated UTF-8. What comes from a server is passed on as it came: whoever shows it makes it
 *     harmless first. Times are seconds since 1970-01-01 00:00:00 UTC. Any text in a result may be null: it is
 *     shown as an empty one, and a realm without a name cannot be asked for. An array may be null when its
 *     count is 0 or less; null with a count above 0 is taken for OLM_DSESS_ADMIN_STATUS_ANSWER_NOT_UNDERSTOOD.
 *  5. What the caller passes in stays the caller's and is only read. The URL list and the SSL settings given to
 *     olm_dsess_admin_initialize must stay valid until the context is shut down.
 *  6. Out-parameters are filled only on success, and ignored after a failure. What they then point to is the
 *     library's until it is handed back with olm_dsess_admin_free, once, by nothing else. The utility hands
 *     back what it got before it makes another request.
 *  7. Calls are made from one thread, one at a time; olm_dsess_admin_interrupt alone from anywhere. The trace
 *     function is called from inside them, on that thread. What it throws is passed over; it must not end the
 *     thread. A thread that is cancelled meanwhile ends after the call.
 *  8. A request that only reads may be sent to several locations in turn. A change is carried out once at most,
 *     whatever is lost on the way: it may be sent again only where it is known by its identifier, and if nobody
 *     tells in time what became of it, its status says just that. Once some of it left, only a server's own
 *     refusal counts as word that it was not carried out.
 *  9. Of the process around it this library changes what follows; another one may do otherwise. One descriptor,
 *     for olm_dsess_admin_interrupt, stays open, and the library stays loaded. A name lookup that hangs is left
 *     to a thread, which gets no signals. Contexts with `fips_enabled` bind all of the process's use of OpenSSL's
 *     default context to the FIPS provider until they are shut down. A child process after fork(2) makes
 *     connections of its own, and an interrupt reaches the process that calls it alone.
 */
#ifndef OLM_DSESS_ADMIN_H
#define OLM_DSESS_ADMIN_H

#include <stdint.h>

#if defined(__GNUC__)
#define OLM_DSESS_ADMIN_API __attribute__((visibility("default")))
#define OLM_DSESS_ADMIN_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))
#else
#define OLM_DSESS_ADMIN_API
#define OLM_DSESS_ADMIN_PRINTF(formatIndex, firstArgument)
#endif

/**
 * The statuses, each with its meaning; the utility has its text. What is said to be unchanged is so in truth: who reads
 * it may repeat the command. What locations failed of, when none gave an answer, the library traces at level 0.
 */
/** Memory is exhausted; nothing was changed. */
#define OLM_DSESS_ADMIN_STATUS_NO_MEMORY UINT32_C(0x38C52097)
/** No location gave a usable answer, for more than one reason or without any connection; nothing was changed. */
#define OLM_DSESS_ADMIN_STATUS_NO_LOCATION UINT32_C(0x38C54011)
/** No location answered in time; nothing was changed. */
#define OLM_DSESS_ADMIN_STATUS_TIMED_OUT UINT32_C(0x38C54012)
/** A change may have been carried out, and nobody told in time. Never repeat it without looking. */
#define OLM_DSESS_ADMIN_STATUS_OUTCOME_UNKNOWN UINT32_C(0x38C54013)
/** No secure connection came about; nothing was sent. */
#define OLM_DSESS_ADMIN_STATUS_TLS_FAILURE UINT32_C(0x38C54014)
/** The server does not know the user, or the password is wrong. The library traces the user's name at level 0. */
#define OLM_DSESS_ADMIN_STATUS_IDENTITY_REFUSED UINT32_C(0x38C54015)
/** The server does not let this user do this. The library traces the user's name at level 0. */
#define OLM_DSESS_ADMIN_STATUS_NOT_PERMITTED UINT32_C(0x38C54016)
/** The server has no realm of the name given. */
#define OLM_DSESS_ADMIN_STATUS_UNKNOWN_REALM UINT32_C(0x38C54017)
/** The server has no replica set of the name given. */
#define OLM_DSESS_ADMIN_STATUS_UNKNOWN_REPLICA_SET UINT32_C(0x38C54018)
/** The server refused for another reason, which the library traces at level 0; nothing was changed. */
#define OLM_DSESS_ADMIN_STATUS_REQUEST_REFUSED UINT32_C(0x38C54019)
/** What came is no whole and sound answer; nothing was changed. */
#define OLM_DSESS_ADMIN_STATUS_ANSWER_NOT_UNDERSTOOD UINT32_C(0x38C5401A)
/** The handle is null or none of this library's; nothing was sent. */
#define OLM_DSESS_ADMIN_STATUS_NO_HANDLE UINT32_C(0x38C5401B)
/** A required argument is missing, too long, out of its range or not valid UTF-8; nothing was sent. */
#define OLM_DSESS_ADMIN_STATUS_INVALID_ARGUMENT UINT32_C(0x38C5401C)
/** The key file, its stash or its label cannot be used; the library traces why at level 0. */
#define OLM_DSESS_ADMIN_STATUS_KEY_FILE UINT32_C(0x38C5401D)
/** FIPS mode is asked for and not to be had. */
#define OLM_DSESS_ADMIN_STATUS_NO_FIPS UINT32_C(0x38C5401E)
/** The server could not do it, for a reason of its own; nothing was changed. */
#define OLM_DSESS_ADMIN_STATUS_SERVER_FAILED UINT32_C(0x38C5401F)
/** There was no session to terminate or refresh. */
#define OLM_DSESS_ADMIN_STATUS_NO_MATCHING_SESSION UINT32_C(0x38C54021)
/** What answered does not serve the instance of the URL; nothing was changed. */
#define OLM_DSESS_ADMIN_STATUS_INSTANCE_NOT_SERVED UINT32_C(0x38C54022)
/** olm_dsess_admin_interrupt ended the operation; nothing was changed. */
#define OLM_DSESS_ADMIN_STATUS_INTERRUPTED UINT32_C(0x38C54023)
/** The system gave no random bytes to name a change by; nothing was sent. */
#define OLM_DSESS_ADMIN_STATUS_NO_CHANGE_ID UINT32_C(0x38C54024)
/** There are more sessions than the library keeps of a listing; the library traces the numbers at level 0. */
#define OLM_DSESS_ADMIN_STATUS_LISTING_TOO_LONG UINT32_C(0x38C54025)

/** The texts that name a selector: sessions by their user, and by their identifier. Never translated. */
#define OLM_DSESS_ADMIN_USER_SELECTOR1 "user"
#define OLM_DSESS_ADMIN_USER_SELECTOR2 "user name"
#define OLM_DSESS_ADMIN_SESSION_SELECTOR1 "session"
#define OLM_DSESS_ADMIN_SESSION_SELECTOR2 "session identifier"

#ifdef __cplusplus
extern "C" {
#endif

/** A counted list of strings. `values` is null when `count` is 0. */
typedef struct olm_dsess_admin_mv_string_t {
    int32_t count;
    char** values;
} olm_dsess_admin_mv_string_t;

/** How connections are secured. All zero and null: plain HTTP URLs, nothing to check. */
typedef struct olm_dsess_admin_ssl_info_t {
    /** Distinguished names, one of which the server's certificate must bear; empty: its host name is checked. */
    olm_dsess_admin_mv_string_t server_dns;
    /** Path of a PKCS#12 or PEM file with the client's identity and the CA certificates, the only ones trusted. */
    char* keyfile;
    /** Path of the file whose first line is the key file's password. */
    char* keyfile_stash;
    /** Friendly name of the identity (PKCS#12) or its common name (PEM); null: the only identity there is. */
    char* keyfile_label;
    /** 1: only FIPS-approved cryptography, or nothing is sent. */
    int32_t fips_enabled;
} olm_dsess_admin_ssl_info_t;

/** Who asks. Sent with every server operation; any field may be null. */
typedef struct olm_dsess_admin_sec_info_t {
    /** "anonymous", with the other fields null, until the first login. */
    const char* user_name;
    /** Null. */
    const char* reserved;
    /** Made anew by the caller at each login; equal for all requests of one login. */
    const char* login_id;
    const char* password;
} olm_dsess_admin_sec_info_t;

/** A realm and the names of its replica sets, in the server's order. */
typedef struct olm_dsess_admin_realm_t {
    char* name;
    int32_t replica_set_count;
    char** replica_set_names;
} olm_dsess_admin_realm_t;

/** The cluster's key. The record lies in the caller's storage; the text does not. */
typedef struct olm_dsess_admin_cluster_t {
    char* key_label;
    /** When the current key was made. */
    int32_t key_time;
    /** When the key before it was made; 0: there is none. */
    int32_t second_time;
} olm_dsess_admin_cluster_t;

/** A member of a replica set and when the server last heard from it. */
typedef struct olm_dsess_admin_replica_set_record_t {
    char* name;
    int32_t time;
} olm_dsess_admin_replica_set_record_t;

/** Selects sessions of one realm by one value of one selector. */
typedef struct olm_dsess_admin_session_query_t {
    const char* realm;
    /** OLM_DSESS_ADMIN_USER_SELECTOR1 and 2, or OLM_DSESS_ADMIN_SESSION_SELECTOR1 and 2. */
    const char* selector_text1;
    const char* selector_text2;
    /**
     * One value, with a null pointer behind it in the array: a user name or a session identifier, compared exactly. In
     * a listing it is a pattern: * stands for any characters, also none, ? for one, everything else for itself.
     */
    olm_dsess_admin_mv_string_t value_list;
    /** Both 0. */
    int32_t reserved1;
    int32_t reserved2;
} olm_dsess_admin_session_query_t;

/** One session. */
typedef struct olm_dsess_admin_session_t {
    /** The user's name. Shown last in a line: whatever it holds, it cannot pass for the two texts before it. */
    char* first_text;
    /** The session's identifier, as the session selector takes it. Shown first in a line. */
    char* second_text;
    /** When the session was created or last refreshed. */
    int32_t time;
} olm_dsess_admin_session_t;

/** What olm_dsess_admin_free releases. */
enum {
    /** The realm array of olm_dsess_admin_get_cluster_info. */
    OLM_DSESS_ADMIN_FREE_REALMS = 2,
    /** The array of olm_dsess_admin_get_replica_set_info. */
    OLM_DSESS_ADMIN_FREE_REPLICA_SET = 3,
    /** The array of olm_dsess_admin_list_sessions. */
    OLM_DSESS_ADMIN_FREE_SESSIONS = 4,
    /** What a cluster record points to. */
    OLM_DSESS_ADMIN_FREE_CLUSTER = 5
};

/** A release request. */
typedef struct olm_dsess_admin_free_info_t {
    /** One of OLM_DSESS_ADMIN_FREE_*. */
    int32_t kind;
    /** The count that the fetching operation gave; 1 for a cluster record. */
    int32_t count;
    /** The address given as out-parameter: of the array pointer, or of the cluster record. */
    void* result;
} olm_dsess_admin_free_info_t;

/**
 * Takes one diagnostic message of the library, printf-like: a line, with the line feed at its end. The utility writes
 * up to 4,095 bytes of it to standard output, made harmless. Levels: 0, what an administrator must see at once; 1, each
 * location tried and why it failed; 3 and up, requests and answers, without passwords.
 */
typedef void (*olm_dsess_admin_trace_fn)(int32_t level, const char* format, ...) OLM_DSESS_ADMIN_PRINTF(2, 3);

/** The utility's own trace function, exported by it under this name and passed to olm_dsess_admin_initialize. */
OLM_DSESS_ADMIN_API void olmdsess_admin_client_trace(int32_t level, const char* format, ...)
    OLM_DSESS_ADMIN_PRINTF(2, 3);

/**
 * Makes a context: checks the arguments and loads the key file. No server needs to be up.
 *
 * timeout: seconds, 0 or more; bounds getting a connection (over all locations together) and silence afterwards,
 *   not a long answer that keeps flowing (1 KiB a second or more). Each location has an equal share of what is left.
 *   0: the library's default, 30 seconds.
 * server_urls: one URL per location of the instance, tried in order; the one that last answered is tried first. A URL
 * is SCHEME://LOCATION/INSTANCE/services/DSessAdminProxy: the scheme https when the configuration names a key file,
 * else http; the location as the configuration has it, host:port or [IPv6 address]:port. User names and passwords in
 * them are left out. Without a URL every operation ends in the status for no location. ssl_info: required, also for
 * plain HTTP. trace: may be null. context: receives the context, null on failure. One that is left there in spite of a
 * failure is shut down.
 */
OLM_DSESS_ADMIN_API uint32_t olm_dsess_admin_initialize(int32_t timeout, const olm_dsess_admin_mv_string_t* server_urls,
                                                        const olm_dsess_admin_ssl_info_t* ssl_info,
                                                        olm_dsess_admin_trace_fn trace, void** context);

/** Makes a handle from a context. The handle is null on failure. */
OLM_DSESS_ADMIN_API uint32_t olm_dsess_admin_create_handle(void* context, void** handle);

/** Releases a handle and sets it to null. Null arguments are accepted. */
OLM_DSESS_ADMIN_API void olm_dsess_admin_release_handle(void* context, void** handle);

/** Shuts a context down, with every handle still made from it, and sets it to null. Null is accepted. */
OLM_DSESS_ADMIN_API void olm_dsess_admin_shutdown(void** context);

/**
 * Fetches the realms (release: OLM_DSESS_ADMIN_FREE_REALMS) and the key (OLM_DSESS_ADMIN_FREE_CLUSTER). Both are handed
 * back in this order, also when there are no realms.
 */
OLM_DSESS_ADMIN_API uint32_t olm_dsess_admin_get_cluster_info(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                                              int32_t* realm_count, olm_dsess_admin_realm_t** realms,
                                                              olm_dsess_admin_cluster_t* cluster);

/** Fetches the members of a replica set (release: OLM_DSESS_ADMIN_FREE_REPLICA_SET unless the array is null). */
OLM_DSESS_ADMIN_API uint32_t olm_dsess_admin_get_replica_set_info(void* handle,
                                                                  const olm_dsess_admin_sec_info_t* sec_info,
                                                                  const char* replica_set_name, int32_t* count,
                                                                  olm_dsess_admin_replica_set_record_t** records);

/** Changes the cluster's key and gives the state afterwards (release: OLM_DSESS_ADMIN_FREE_CLUSTER). */
OLM_DSESS_ADMIN_API uint32_t olm_dsess_admin_generate_new_key(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                                              olm_dsess_admin_cluster_t* cluster);

/**
 * Lists sessions (release: OLM_DSESS_ADMIN_FREE_SESSIONS unless the array is null).
 *
 * max: the most records wanted, -1 for all. What is kept is limited, in this library to 2 GiB or half of the machine's
 * memory, whichever is less: OLM_DSESS_ADMIN_STATUS_LISTING_TOO_LONG. A session takes 26 bytes and its texts.
 * total: receives how many sessions match; count: how many of them the array holds.
 */
OLM_DSESS_ADMIN_API uint32_t olm_dsess_admin_list_sessions(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                                           const olm_dsess_admin_session_query_t* query, int32_t max,
                                                           int32_t* total, int32_t* count,
                                                           olm_dsess_admin_session_t** sessions);

/** Ends the sessions selected; it is a failure when there are none. */
OLM_DSESS_ADMIN_API uint32_t olm_dsess_admin_terminate_sessions(void* handle,
                                                                const olm_dsess_admin_sec_info_t* sec_info,
                                                                const olm_dsess_admin_session_query_t* query);

/** Makes the sessions selected fresh: their time becomes the server's present time. It is a failure when there are
 * none. */
OLM_DSESS_ADMIN_API uint32_t olm_dsess_admin_refresh_sessions(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                                              const olm_dsess_admin_session_query_t* query);

/** Reads the server's trace level. */
OLM_DSESS_ADMIN_API uint32_t olm_dsess_admin_get_trace_level(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                                             int32_t* level);

/** Sets the server's trace level. The server decides which levels are valid: OLM_DSESS_ADMIN_STATUS_REQUEST_REFUSED. */
OLM_DSESS_ADMIN_API uint32_t olm_dsess_admin_set_trace_level(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                                             int32_t level);

/** Releases one result. Null, and a result that holds nothing, are accepted. */
OLM_DSESS_ADMIN_API void olm_dsess_admin_free(const olm_dsess_admin_free_info_t* free_info);

/**
 * on 1: the operation that is running, and those after it, end at once in OLM_DSESS_ADMIN_STATUS_INTERRUPTED, or in
 * OLM_DSESS_ADMIN_STATUS_OUTCOME_UNKNOWN if it is a change that may have been sent. 0: operations run again.
 *
 * May be called from a signal handler, and from any thread, at any time. A library may lack this function: the utility
 * refers to it weakly, and without it an interrupt ends the utility.
 */
OLM_DSESS_ADMIN_API void olm_dsess_admin_interrupt(int32_t on);

#ifdef __cplusplus
}
#endif

#endif
