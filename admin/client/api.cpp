/// The functions of olm_dsess_admin.h: each finds its handle's client, has it perform an operation, hands out results.

#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "admin/client-interface/olm_dsess_admin.h"
#include "admin/client/Client.h"
#include "admin/client/base/Failure.h"
#include "admin/client/request/Interruption.h"
#include "catalogue/qel_messages.h"
#include "protocol/protocol.h"

namespace olmdsess {
namespace {

namespace field = protocol::field;
namespace method = protocol::method;

constexpr Operation kClusterGet{method::kClusterGet, AnswerShape::kCluster, false};
constexpr Operation kReplicaSetGet{method::kReplicaSetGet, AnswerShape::kReplicaSet, false};
constexpr Operation kKeyChange{method::kKeyChange, AnswerShape::kKey, true};
constexpr Operation kSessionList{method::kSessionList, AnswerShape::kSessions, false};
constexpr Operation kSessionTerminate{method::kSessionTerminate, AnswerShape::kCount, true};
constexpr Operation kSessionRefresh{method::kSessionRefresh, AnswerShape::kCount, true};
constexpr Operation kTraceGet{method::kTraceGet, AnswerShape::kLevel, false};
constexpr Operation kTraceSet{method::kTraceSet, AnswerShape::kLevel, true};

struct Handle {
    Client& client;
};

struct Context {
    Client client;
    std::vector<std::unique_ptr<Handle>> handles;
};

/// The contexts there are: an address that is not one of theirs, or of their handles, is refused instead of followed.
using Contexts = std::vector<std::unique_ptr<Context>>;

/// Never destroyed: what is still there at the program's end may be in use by another part of it.
union ContextStorage {
    constexpr ContextStorage() : all() {}
    ~ContextStorage() {}
    Contexts all;
};

Contexts& contexts() {
    constinit static ContextStorage storage;
    return storage.all;
}

Context* findContext(const void* address) {
    for (const auto& context : contexts()) {
        if (context.get() == address) {
            return context.get();
        }
    }
    return nullptr;
}

Client* findClient(const void* handleAddress) {
    for (const auto& context : contexts()) {
        for (const auto& handle : context->handles) {
            if (handle.get() == handleAddress) {
                return &handle->client;
            }
        }
    }
    return nullptr;
}

/// While it lives, a thread that is cancelled (pthreads(7)) goes on. It would end in the middle of a request otherwise,
/// and nobody would be told what became of it.
class Uncancelled {
  public:
    Uncancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~Uncancelled() { pthread_setcancelstate(m_before, nullptr); }
    Uncancelled(const Uncancelled&) = delete;
    Uncancelled& operator=(const Uncancelled&) = delete;

  private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

/// No exception leaves the library; one that is not expected becomes `otherwise`.
template <class Body>
std::uint32_t guarded(std::uint32_t otherwise, Body body) noexcept {
    const Uncancelled thread;
    try {
        return body();
    } catch (...) {
        return otherwise;
    }
}

/// For operations whose answer holds no records: takes nothing from it.
constexpr auto kNoResult = [](const Answer&) {};

/// Has a server carry out an operation, and returns the status for the caller. `usable`: whether the caller's further
/// arguments are; nothing is done unless they are. `take` moves the answer into the caller's storage.
template <class Take>
std::uint32_t callServer(const void* handle, const olm_dsess_admin_sec_info_t* security, bool usable,
                         const Operation& operation, std::initializer_list<RequestParameter> parameters, Take take) {
    Client* client = findClient(handle);
    if (client == nullptr) {
        return kStatusNoHandle;
    }
    if (security == nullptr || !usable) {
        return kStatusInvalidArgument;
    }
    return guarded(kStatusNoMemory, [&]() -> std::uint32_t {
        Answer answer;
        const std::uint32_t status = client->carryOut(operation, *security, parameters, answer);
        if (status != 0) {
            return status;
        }
        // The change has been carried out, though its result cannot be handed over.
        return guarded(operation.changes ? kStatusOutcomeUnknown : kStatusNoMemory, [&] {
            take(answer);
            return 0U;
        });
    });
}

/// What a query asks for, by its names on the wire. All null when it lacks something, or names no selector.
struct Selection {
    const char* realm = nullptr;
    const char* selector = nullptr;
    const char* value = nullptr;

    bool isUsable() const { return selector != nullptr; }
};

Selection selectionOf(const olm_dsess_admin_session_query_t* query) {
    if (query == nullptr || query->realm == nullptr || query->selector_text1 == nullptr ||
        query->selector_text2 == nullptr || query->value_list.count != 1 || query->value_list.values == nullptr ||
        query->value_list.values[0] == nullptr) {
        return {};
    }
    const auto names = [query](const char* text1, const char* text2) {
        return std::strcmp(query->selector_text1, text1) == 0 && std::strcmp(query->selector_text2, text2) == 0;
    };
    const char* value = query->value_list.values[0];
    if (names(OLM_DSESS_ADMIN_USER_SELECTOR1, OLM_DSESS_ADMIN_USER_SELECTOR2)) {
        return {query->realm, protocol::selector::kUser, value};
    }
    if (names(OLM_DSESS_ADMIN_SESSION_SELECTOR1, OLM_DSESS_ADMIN_SESSION_SELECTOR2)) {
        return {query->realm, protocol::selector::kSession, value};
    }
    return {};
}

std::uint32_t changeSessions(void* handle, const olm_dsess_admin_sec_info_t* security,
                             const olm_dsess_admin_session_query_t* query, const Operation& operation) {
    const Selection wanted = selectionOf(query);
    return callServer(
        handle, security, wanted.isUsable(), operation,
        {{field::kRealm, wanted.realm}, {field::kSelector, wanted.selector}, {field::kValue, wanted.value}}, kNoResult);
}

/// The key outlives the other results of its answer, so its label gets a block of its own. Throws std::bad_alloc.
olm_dsess_admin_cluster_t clusterResult(const Answer& answer) {
    olm_dsess_admin_cluster_t cluster = answer.key;
    cluster.key_label = makeTextResult(OLM_DSESS_ADMIN_FREE_CLUSTER, answer.key.key_label);
    return cluster;
}

/// A URL without user name and password: they are neither sent nor shown.
std::string withoutUserInfo(const std::string& url) {
    const std::size_t scheme = url.find("://");
    const std::size_t host = scheme == std::string::npos ? 0 : scheme + 3;
    const std::size_t at = url.substr(0, url.find_first_of("/?#", host)).rfind('@');
    return at == std::string::npos || at < host ? url : url.substr(0, host) + url.substr(at + 1);
}

bool isList(const olm_dsess_admin_mv_string_t& list) {
    return list.count == 0 ||
           (list.count > 0 && list.values != nullptr &&
            std::all_of(list.values, list.values + list.count, [](const char* text) { return text != nullptr; }));
}

}  // namespace
}  // namespace olmdsess

using namespace olmdsess;

std::uint32_t olm_dsess_admin_initialize(std::int32_t timeout, const olm_dsess_admin_mv_string_t* server_urls,
                                         const olm_dsess_admin_ssl_info_t* ssl_info, olm_dsess_admin_trace_fn trace,
                                         void** context) {
    return guarded(kStatusNoMemory, [&]() -> std::uint32_t {
        if (context == nullptr) {
            return kStatusInvalidArgument;
        }
        *context = nullptr;
        if (timeout < 0 || server_urls == nullptr || !isList(*server_urls) || ssl_info == nullptr ||
            !isList(ssl_info->server_dns)) {
            return kStatusInvalidArgument;
        }
        std::vector<std::string> urls(server_urls->values, server_urls->values + server_urls->count);
        std::transform(urls.begin(), urls.end(), urls.begin(), withoutUserInfo);
        interruption::prepare();
        try {
            contexts().emplace_back(new Context{Client(timeout, std::move(urls), *ssl_info, Trace(trace)), {}});
        } catch (const Failure& failure) {
            Trace(trace).line(kTraceAlways, failure.cause);
            return failure.status;
        }
        *context = contexts().back().get();
        return 0;
    });
}

std::uint32_t olm_dsess_admin_create_handle(void* context, void** handle) {
    return guarded(kStatusNoMemory, [&]() -> std::uint32_t {
        if (handle == nullptr) {
            return kStatusInvalidArgument;
        }
        *handle = nullptr;
        Context* owner = findContext(context);
        if (owner == nullptr) {
            return kStatusInvalidArgument;
        }
        owner->handles.emplace_back(new Handle{owner->client});
        *handle = owner->handles.back().get();
        return 0;
    });
}

void olm_dsess_admin_release_handle(void* context, void** handle) {
    Context* owner = findContext(context);
    if (handle == nullptr) {
        return;
    }
    if (owner != nullptr) {
        std::erase_if(owner->handles, [&](const auto& candidate) { return candidate.get() == *handle; });
    }
    *handle = nullptr;
}

void olm_dsess_admin_shutdown(void** context) {
    const Uncancelled thread;
    if (context != nullptr) {
        std::erase_if(contexts(), [&](const auto& candidate) { return candidate.get() == *context; });
        *context = nullptr;
    }
}

std::uint32_t olm_dsess_admin_get_cluster_info(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                               std::int32_t* realm_count, olm_dsess_admin_realm_t** realms,
                                               olm_dsess_admin_cluster_t* cluster) {
    const bool usable = realm_count != nullptr && realms != nullptr && cluster != nullptr;
    return callServer(handle, sec_info, usable, kClusterGet, {}, [&](Answer& answer) {
        const olm_dsess_admin_cluster_t key = clusterResult(answer);
        *realms = makeResult(OLM_DSESS_ADMIN_FREE_REALMS, answer.realms, answer.texts, answer.replicaSetNames);
        *realm_count = answer.count;
        *cluster = key;
    });
}

std::uint32_t olm_dsess_admin_get_replica_set_info(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                                   const char* replica_set_name, std::int32_t* count,
                                                   olm_dsess_admin_replica_set_record_t** records) {
    const bool usable = replica_set_name != nullptr && count != nullptr && records != nullptr;
    return callServer(
        handle, sec_info, usable, kReplicaSetGet, {{field::kReplicaSet, replica_set_name}}, [&](Answer& answer) {
            *records =
                makeResult(OLM_DSESS_ADMIN_FREE_REPLICA_SET, answer.members, answer.texts, answer.replicaSetNames);
            *count = answer.count;
        });
}

std::uint32_t olm_dsess_admin_generate_new_key(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                               olm_dsess_admin_cluster_t* cluster) {
    return callServer(handle, sec_info, cluster != nullptr, kKeyChange, {},
                      [&](Answer& answer) { *cluster = clusterResult(answer); });
}

std::uint32_t olm_dsess_admin_list_sessions(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                            const olm_dsess_admin_session_query_t* query, std::int32_t max,
                                            std::int32_t* total, std::int32_t* count,
                                            olm_dsess_admin_session_t** sessions) {
    const Selection wanted = selectionOf(query);
    const bool usable = wanted.isUsable() && max >= -1 && total != nullptr && count != nullptr && sessions != nullptr;
    return callServer(handle, sec_info, usable, kSessionList,
                      {{field::kRealm, wanted.realm},
                       {field::kSelector, wanted.selector},
                       {field::kValue, wanted.value},
                       {field::kMax, max}},
                      [&](Answer& answer) {
                          *sessions = makeResult(OLM_DSESS_ADMIN_FREE_SESSIONS, answer.sessions, answer.texts,
                                                 answer.replicaSetNames);
                          *total = answer.total;
                          *count = answer.count;
                      });
}

std::uint32_t olm_dsess_admin_terminate_sessions(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                                 const olm_dsess_admin_session_query_t* query) {
    return changeSessions(handle, sec_info, query, kSessionTerminate);
}

std::uint32_t olm_dsess_admin_refresh_sessions(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                               const olm_dsess_admin_session_query_t* query) {
    return changeSessions(handle, sec_info, query, kSessionRefresh);
}

std::uint32_t olm_dsess_admin_get_trace_level(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                              std::int32_t* level) {
    return callServer(handle, sec_info, level != nullptr, kTraceGet, {},
                      [&](Answer& answer) { *level = answer.level; });
}

std::uint32_t olm_dsess_admin_set_trace_level(void* handle, const olm_dsess_admin_sec_info_t* sec_info,
                                              std::int32_t level) {
    return callServer(handle, sec_info, true, kTraceSet, {{field::kLevel, level}}, kNoResult);
}

void olm_dsess_admin_free(const olm_dsess_admin_free_info_t* free_info) {
    if (free_info == nullptr || free_info->result == nullptr || free_info->kind < OLM_DSESS_ADMIN_FREE_REALMS ||
        free_info->kind > OLM_DSESS_ADMIN_FREE_CLUSTER) {
        return;
    }
    // A cluster record begins with its label, so that both cases are the address of a pointer.
    void** records = static_cast<void**>(free_info->result);
    if (releaseResult(free_info->kind, *records)) {
        *records = nullptr;
    }
}

void olm_dsess_admin_interrupt(std::int32_t on) {
    interruption::set(on != 0);
}
