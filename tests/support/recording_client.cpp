/// An admin client library that talks to no server: it records every call and plays a script.
///
/// RECORDING_LOG: the file that each call is appended to, one a line: the operation and what it was given, contexts and
/// handles by name, null as ~. RECORDING_SCRIPT: a file of answers, one a line: an operation, then fields name=value.
/// Those to an operation are given in turn, the last one again and again; without any it succeeds and finds nothing. In
/// that file the bytes 1D, 1E and 1F stand for line feed, blank and comma. Fields, of which some may be repeated:
///   status=HEX, made=1    fails, with garbage in the out-parameters; leaves a context or handle all the same
///   throws=1              memory is exhausted
///   trace=LEVEL,TEXT      calls the trace function first
///   realm=NAME,SET,SET    NAME,? claims a set but has no array
///   member=NAME,TIME   session=FIRST,SECOND,TIME
///   label= time= second=  the cluster record
///   count= total= level=  numbers; count is the number of records unless given
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "admin/client-interface/olm_dsess_admin.h"

namespace {

using Cluster = olm_dsess_admin_cluster_t;
using Member = olm_dsess_admin_replica_set_record_t;
using Query = olm_dsess_admin_session_query_t;
using Realm = olm_dsess_admin_realm_t;
using SecInfo = olm_dsess_admin_sec_info_t;
using Session = olm_dsess_admin_session_t;
using StringList = olm_dsess_admin_mv_string_t;
using Texts = std::vector<std::string>;
using Status = std::uint32_t;
using Count = std::int32_t;

/// Of a text, a context or a handle; the latter two are their names.
std::string shown(const void* text) {
    return text == nullptr ? "~" : static_cast<const char*>(text);
}

std::string shown(const StringList& list) {
    std::string out;
    for (Count i = 0; i < list.count; ++i) {
        out += (i > 0 ? "," : "") + shown(list.values[i]);
    }
    return "[" + out + "]";
}

std::string shown(const void* handle, const SecInfo* sec) {
    return " " + shown(handle) + " sec=" + shown(sec->user_name) + "," + shown(sec->login_id) + "," +
           shown(sec->password);
}

std::string shown(const void* handle, const SecInfo* sec, const Query* query) {
    return shown(handle, sec) + " realm=" + shown(query->realm) + " by=" + shown(query->selector_text1) + "," +
           shown(query->selector_text2) + " values=" + shown(query->value_list);
}

Texts split(const std::string& text, char separator) {
    Texts pieces;
    std::istringstream stream(text + separator);
    for (std::string piece; std::getline(stream, piece, separator);) {
        pieces.push_back(piece);
    }
    return pieces;
}

struct Answer {
    std::map<std::string, std::vector<Texts>> fields;  // what stands behind a name, each time

    explicit Answer(const Texts& texts = {}) {
        for (const std::string& text : texts) {
            const std::size_t equals = text.find('=');
            fields[text.substr(0, equals)].push_back(split(text.substr(equals + 1), '\x1F'));
        }
    }
    std::string text(const std::string& name, const std::string& absent) {
        return fields[name].empty() ? absent : fields[name].back()[0];
    }
    Count number(const std::string& name, Count absent = 0) { return std::stoi(text(name, std::to_string(absent))); }
    Status status() { return static_cast<Status>(std::stoul(text("status", "0"), nullptr, 16)); }
};

Answer nextAnswer(const std::string& operation) {
    static std::map<std::string, std::deque<Answer>> script;
    if (script.empty()) {
        std::ifstream file(std::getenv("RECORDING_SCRIPT"));
        for (std::string line; std::getline(file, line, '\x1D');) {
            script[line.substr(0, line.find('\x1E'))].emplace_back(split(line, '\x1E'));
        }
    }
    auto& answers = script[operation];
    const Answer answer = answers.empty() ? Answer() : answers.front();
    if (answers.size() > 1) {
        answers.pop_front();
    }
    return answer;
}

olm_dsess_admin_trace_fn g_trace = nullptr;
int g_selections = 0;

/// Records a call and plays the trace lines of its answer. A failure fills `out` with garbage.
template <class... Out>
Answer play(const std::string& call, Out*... out) {
    // Open for good and for reading too, so that it shows where it takes the place of a standard stream.
    static const int log = open(std::getenv("RECORDING_LOG"), O_RDWR | O_APPEND | O_CREAT, 0600);
    [[maybe_unused]] const ssize_t written = write(log, (call + "\n").data(), call.size() + 1);
    Answer answer = nextAnswer(call.substr(0, call.find(' ')));
    for (const Texts& trace : answer.fields["trace"]) {
        g_trace(std::stoi(trace[0]), "%s", trace[1].c_str());
    }
    if (answer.number("throws") != 0) {
        throw std::bad_alloc();
    }
    if (answer.status() != 0) {
        (std::memset(static_cast<void*>(out), 0x5D, sizeof(Out)), ...);
    }
    return answer;
}

/// The same for a call that makes a context or a handle.
Status make(const std::string& call, const char* kind, void** pointer) {
    Answer answer = play(call + " " + kind + "=" + shown(*pointer));
    if (answer.status() == 0 || answer.number("made") != 0) {
        static std::deque<std::string> names;
        *pointer = names.emplace_back(kind + std::to_string(g_selections)).data();
    }
    return answer.status();
}

/// A result that the utility holds, with its memory.
struct Result {
    const void* address = nullptr;  // of the out-parameter
    std::deque<std::string> blocks;

    template <class T>
    T* take(std::size_t count) {
        return count == 0 ? nullptr : reinterpret_cast<T*>(blocks.emplace_back(count * sizeof(T), '\0').data());
    }
    char* text(const std::string& text) { return text == "~" ? nullptr : blocks.emplace_back(text).data(); }
    void set(Member& member, const Texts& fields) { member = {text(fields[0]), std::stoi(fields[1])}; }
    void set(Session& session, const Texts& fields) {
        session = {text(fields[0]), text(fields[1]), std::stoi(fields[2])};
    }
    void set(Realm& realm, const Texts& fields) {
        const std::size_t count = fields.size() - 1, given = count > 0 && fields[1] == "?" ? 0 : count;
        realm = {text(fields[0]), static_cast<Count>(count), take<char*>(given)};
        for (std::size_t i = 0; i < given; ++i) {
            realm.replica_set_names[i] = text(fields[i + 1]);
        }
    }
};
std::map<Count, Result> g_results;  // by the kind of their release

/// Gives the records of a success, to be released as `kind`. Returns the status.
template <class Record>
Status give(Answer answer, const char* name, Count kind, Count* count, Record** records) {
    if (answer.status() == 0) {
        const std::vector<Texts>& items = answer.fields[name];
        Result& result = g_results[kind] = {records, {}};
        *count = answer.number("count", static_cast<Count>(items.size()));
        *records = result.take<Record>(items.size());
        for (std::size_t i = 0; i < items.size(); ++i) {
            result.set((*records)[i], items[i]);
        }
    }
    return answer.status();
}

Status give(Answer answer, Cluster* cluster) {
    if (answer.status() == 0) {
        Result& result = g_results[OLM_DSESS_ADMIN_FREE_CLUSTER] = {cluster, {}};
        *cluster = {result.text(answer.text("label", "key")), answer.number("time"), answer.number("second")};
    }
    return answer.status();
}

}  // namespace

Status olm_dsess_admin_initialize(Count timeout, const StringList* urls, const olm_dsess_admin_ssl_info_t* ssl,
                                  olm_dsess_admin_trace_fn trace, void** context) {
    ++g_selections;
    g_trace = trace;
    return make("initialize timeout=" + std::to_string(timeout) + " urls=" + shown(*urls) + " dns=" +
                    shown(ssl->server_dns) + " keyfile=" + shown(ssl->keyfile) + " stash=" + shown(ssl->keyfile_stash) +
                    " label=" + shown(ssl->keyfile_label) + " fips=" + std::to_string(ssl->fips_enabled),
                "context", context);
}

Status olm_dsess_admin_create_handle(void* context, void** handle) {
    return make("create_handle " + shown(context), "handle", handle);
}

void olm_dsess_admin_release_handle(void* context, void** handle) {
    play("release_handle " + shown(context) + " " + shown(*handle));
}

void olm_dsess_admin_shutdown(void** context) {
    play("shutdown " + shown(*context));
}

Status olm_dsess_admin_get_cluster_info(void* handle, const SecInfo* sec, Count* count, Realm** realms,
                                        Cluster* cluster) {
    const Answer answer = play("get_cluster_info" + shown(handle, sec), count, realms, cluster);
    give(answer, cluster);
    return give(answer, "realm", OLM_DSESS_ADMIN_FREE_REALMS, count, realms);
}

Status olm_dsess_admin_get_replica_set_info(void* handle, const SecInfo* sec, const char* name, Count* count,
                                            Member** members) {
    return give(play("get_replica_set_info" + shown(handle, sec) + " " + shown(name), count, members), "member",
                OLM_DSESS_ADMIN_FREE_REPLICA_SET, count, members);
}

Status olm_dsess_admin_generate_new_key(void* handle, const SecInfo* sec, Cluster* cluster) {
    return give(play("generate_new_key" + shown(handle, sec), cluster), cluster);
}

Status olm_dsess_admin_list_sessions(void* handle, const SecInfo* sec, const Query* query, Count max, Count* total,
                                     Count* count, Session** sessions) {
    const std::string call = "list_sessions" + shown(handle, sec, query) + " max=" + std::to_string(max);
    Answer answer = play(call, total, count, sessions);
    give(answer, "session", OLM_DSESS_ADMIN_FREE_SESSIONS, count, sessions);
    *total = answer.number("total", *count);
    return answer.status();
}

Status olm_dsess_admin_terminate_sessions(void* handle, const SecInfo* sec, const Query* query) {
    return play("terminate_sessions" + shown(handle, sec, query)).status();
}

Status olm_dsess_admin_refresh_sessions(void* handle, const SecInfo* sec, const Query* query) {
    return play("refresh_sessions" + shown(handle, sec, query)).status();
}

Status olm_dsess_admin_get_trace_level(void* handle, const SecInfo* sec, Count* level) {
    Answer answer = play("get_trace_level" + shown(handle, sec), level);
    *level = answer.number("level", *level);
    return answer.status();
}

Status olm_dsess_admin_set_trace_level(void* handle, const SecInfo* sec, Count level) {
    return play("set_trace_level" + shown(handle, sec) + " " + std::to_string(level)).status();
}

void olm_dsess_admin_free(const olm_dsess_admin_free_info_t* info) {
    const auto found = g_results.find(info->kind);
    const bool own = found != g_results.end() && found->second.address == info->result;
    play("free kind=" + std::to_string(info->kind) + " count=" + std::to_string(info->count) +
         (own ? " own" : " stray"));
    if (own) {
        g_results.erase(found);
    }
}
