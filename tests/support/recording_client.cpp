/// An admin client library that talks to no server: it records every call and plays a script.
///
/// RECORDING_LOG names the file that each call is appended to, one a line: the operation, what it was given, pointers
/// by name (context1, handle1), null as ~. What is released is filled with 0xDD and kept, so that a use after it shows.
///
/// RECORDING_SCRIPT names a file of answers, one a line: an operation without its prefix, then fields name=value. The
/// answers to an operation are given in turn, the last one again and again; without any it succeeds and finds nothing.
/// What stands below as line feed, blank and comma are the bytes 1D, 1E and 1F there; ~ is a null. Fields:
///   status=HEX            fails; out-parameters become garbage that must not be looked at
///   trace=LEVEL:TEXT      calls the trace function first; repeatable
///   context=1, handle=1   initialize, create_handle: leaves one although it fails
///   realm=NAME,SET,SET    NAME,? claims a set but has no array
///   member=NAME,TIME   session=FIRST,SECOND,TIME   one record; repeatable
///   label= time= second=  the cluster record
///   count= total= level=  numbers; count is the number of records unless given
///
/// RECORDING_READS and RECORDING_WRITES say what becomes of the reads and writes that the utility makes from its first
/// call on, a letter each: i interrupted, b would block, f failed, 1 one byte only, anything else and the rest as
/// usual.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "admin/client-interface/olm_dsess_admin.h"

namespace {

using Cluster = olm_dsess_admin_cluster_t;
using Member = olm_dsess_admin_replica_set_record_t;
using Query = olm_dsess_admin_session_query_t;
using Realm = olm_dsess_admin_realm_t;
using SecInfo = olm_dsess_admin_sec_info_t;
using Session = olm_dsess_admin_session_t;
using SslInfo = olm_dsess_admin_ssl_info_t;
using StringList = olm_dsess_admin_mv_string_t;
using Texts = std::vector<std::string>;

std::string shown(const char* text) {
    return text == nullptr ? "~" : text;
}

std::string shown(const StringList& list) {
    std::string out;
    for (std::int32_t i = 0; i < list.count; ++i) {
        out.append(i > 0 ? "," : "").append(shown(list.values[i]));
    }
    return "[" + out + "]";
}

// A context or handle is its name.
std::string shown(const void* pointer) {
    return pointer == nullptr ? "~" : *static_cast<const std::string*>(pointer);
}

std::string shown(const void* handle, const SecInfo* sec) {
    return " " + shown(handle) + " sec=" + shown(sec->user_name) + "," + shown(sec->reserved) + "," +
           shown(sec->login_id) + "," + shown(sec->password);
}

std::string shown(const Query* query) {
    // The value list is longer than its count: a null ends it.
    const StringList& list = query->value_list;
    return " realm=" + shown(query->realm) + " by=" + shown(query->selector_text1) + "," +
           shown(query->selector_text2) + " values=" + std::to_string(list.count) +
           shown(StringList{list.count + 1, list.values}) + " reserved=" + std::to_string(query->reserved1) + "," +
           std::to_string(query->reserved2);
}

std::string shown(const StringList* urls, const SslInfo* ssl) {
    return "urls=" + shown(*urls) + " dns=" + shown(ssl->server_dns) + " keyfile=" + shown(ssl->keyfile) +
           " stash=" + shown(ssl->keyfile_stash) + " label=" + shown(ssl->keyfile_label) +
           " fips=" + std::to_string(ssl->fips_enabled);
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
    Texts fields;

    Texts all(const std::string& name) const {
        Texts values;
        for (const std::string& field : fields) {
            if (field.rfind(name + "=", 0) == 0) {
                values.push_back(field.substr(name.size() + 1));
            }
        }
        return values;
    }
    std::string text(const std::string& name, const std::string& absent) const {
        const Texts values = all(name);
        return values.empty() ? absent : values.back();
    }
    std::int32_t number(const std::string& name, std::int32_t absent = 0) const {
        return std::stoi(text(name, std::to_string(absent)));
    }
    std::uint32_t status() const { return static_cast<std::uint32_t>(std::stoul(text("status", "0"), nullptr, 16)); }
};

std::string g_reads;
std::string g_writes;

/// Whether the next of these calls fails; if not, it may be of one byte only.
bool fails(std::string& faults, std::size_t& size) {
    const char fault = faults.empty() ? ' ' : faults.front();
    faults.erase(0, 1);
    size = fault == '1' ? 1 : size;
    errno = fault == 'i' ? EINTR : fault == 'b' ? EAGAIN : EIO;
    return fault == 'i' || fault == 'b' || fault == 'f';
}

Answer nextAnswer(const std::string& operation) {
    static std::map<std::string, std::deque<Answer>> script;
    if (script.empty()) {
        std::ifstream file(std::getenv("RECORDING_SCRIPT"));
        for (std::string line; std::getline(file, line, '\x1D');) {
            script[line.substr(0, line.find('\x1E'))].push_back({split(line, '\x1E')});
        }
        g_reads = std::getenv("RECORDING_READS");
        g_writes = std::getenv("RECORDING_WRITES");
    }
    auto& answers = script[operation];
    const Answer answer = answers.empty() ? Answer() : answers.front();
    if (answers.size() > 1) {
        answers.pop_front();
    }
    return answer;
}

olm_dsess_admin_trace_fn g_trace = nullptr;
const StringList* g_urls = nullptr;
const SslInfo* g_ssl = nullptr;
std::string g_settings;
int g_selections = 0;

/// Records a call and plays the trace lines of its answer. A failure fills `out` with garbage.
template <class... Out>
Answer play(const std::string& call, Out*... out) {
    // Open for good and for reading too, so that it shows where it takes the place of a standard stream.
    static const int log = open(std::getenv("RECORDING_LOG"), O_RDWR | O_APPEND | O_CREAT, 0600);
    syscall(SYS_write, log, (call + "\n").data(), call.size() + 1);
    const Answer answer = nextAnswer(call.substr(0, call.find(' ')));
    for (const std::string& trace : answer.all("trace")) {
        g_trace(std::stoi(trace), "%s", trace.substr(trace.find(':') + 1).c_str());
    }
    if (answer.status() != 0) {
        (std::memset(static_cast<void*>(out), 0x5D, sizeof(Out)), ...);
    }
    return answer;
}

/// The same for a call that makes a context or a handle.
std::uint32_t make(const std::string& call, const char* kind, void** pointer) {
    const Answer answer = play(call + " " + kind + "=" + shown(*pointer));
    if (answer.status() == 0 || answer.number(kind) != 0) {
        static std::deque<std::string> names;
        *pointer = &names.emplace_back(kind + std::to_string(g_selections));
    }
    return answer.status();
}

/// A result that the utility holds, and the memory that it lies in.
struct Result {
    const void* address = nullptr;  // of the out-parameter
    std::deque<std::string> blocks;

    template <class T>
    T* take(std::size_t count) {
        return reinterpret_cast<T*>(blocks.emplace_back(count * sizeof(T), '\0').data());
    }
    char* text(const std::string& text) { return text == "~" ? nullptr : blocks.emplace_back(text).data(); }
    void set(Member& member, const Texts& fields) { member = {text(fields[0]), std::stoi(fields[1])}; }
    void set(Session& session, const Texts& fields) {
        session = {text(fields[0]), text(fields[1]), std::stoi(fields[2])};
    }
    void set(Realm& realm, const Texts& fields) {
        const std::size_t count = fields.size() - 1;
        const bool hasArray = count > 0 && fields[1] != "?";
        realm = {text(fields[0]), static_cast<std::int32_t>(count), hasArray ? take<char*>(count) : nullptr};
        for (std::size_t i = 0; hasArray && i < count; ++i) {
            realm.replica_set_names[i] = text(fields[i + 1]);
        }
    }
};
std::map<std::int32_t, Result> g_results;  // by the kind of their release
std::deque<Result> g_released;

/// Gives the records of a success, to be released as `kind`.
template <class Record>
void give(const Answer& answer, const char* name, std::int32_t kind, std::int32_t* count, Record** records) {
    if (answer.status() != 0) {
        return;
    }
    const Texts items = answer.all(name);
    Result& result = g_results[kind] = {records, {}};
    *count = answer.number("count", static_cast<std::int32_t>(items.size()));
    *records = items.empty() ? nullptr : result.take<Record>(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        result.set((*records)[i], split(items[i], '\x1F'));
    }
}

void give(const Answer& answer, Cluster* cluster) {
    if (answer.status() == 0) {
        Result& result = g_results[OLM_DSESS_ADMIN_FREE_CLUSTER] = {cluster, {}};
        *cluster = {result.text(answer.text("label", "key")), answer.number("time"), answer.number("second")};
    }
}

}  // namespace

// Stand in for the C library's where the utility calls them.
extern "C" OLM_DSESS_ADMIN_API ssize_t read(int descriptor, void* buffer, std::size_t size) {
    return fails(g_reads, size) ? -1 : syscall(SYS_read, descriptor, buffer, size);
}
extern "C" OLM_DSESS_ADMIN_API ssize_t write(int descriptor, const void* bytes, std::size_t size) {
    return fails(g_writes, size) ? -1 : syscall(SYS_write, descriptor, bytes, size);
}

std::uint32_t olm_dsess_admin_initialize(std::int32_t timeout, const StringList* urls, const SslInfo* ssl,
                                         olm_dsess_admin_trace_fn trace, void** context) {
    ++g_selections;
    g_urls = urls;
    g_ssl = ssl;
    g_settings = shown(urls, ssl);
    g_trace = trace;
    return make("initialize timeout=" + std::to_string(timeout) + " " + g_settings, "context", context);
}

std::uint32_t olm_dsess_admin_create_handle(void* context, void** handle) {
    return make("create_handle " + shown(context), "handle", handle);
}

void olm_dsess_admin_release_handle(void* context, void** handle) {
    play("release_handle " + shown(context) + " " + shown(*handle));
}

void olm_dsess_admin_shutdown(void** context) {
    play("shutdown " + shown(*context) + (shown(g_urls, g_ssl) == g_settings ? " settings=kept" : " settings=lost"));
}

std::uint32_t olm_dsess_admin_get_cluster_info(void* handle, const SecInfo* sec, std::int32_t* count, Realm** realms,
                                               Cluster* cluster) {
    const Answer answer = play("get_cluster_info" + shown(handle, sec), count, realms, cluster);
    give(answer, "realm", OLM_DSESS_ADMIN_FREE_REALMS, count, realms);
    give(answer, cluster);
    return answer.status();
}

std::uint32_t olm_dsess_admin_get_replica_set_info(void* handle, const SecInfo* sec, const char* name,
                                                   std::int32_t* count, Member** members) {
    const Answer answer = play("get_replica_set_info" + shown(handle, sec) + " " + shown(name), count, members);
    give(answer, "member", OLM_DSESS_ADMIN_FREE_REPLICA_SET, count, members);
    return answer.status();
}

std::uint32_t olm_dsess_admin_generate_new_key(void* handle, const SecInfo* sec, Cluster* cluster) {
    const Answer answer = play("generate_new_key" + shown(handle, sec), cluster);
    give(answer, cluster);
    return answer.status();
}

std::uint32_t olm_dsess_admin_list_sessions(void* handle, const SecInfo* sec, const Query* query, std::int32_t max,
                                            std::int32_t* total, std::int32_t* count, Session** sessions) {
    const std::string call = "list_sessions" + shown(handle, sec) + shown(query) + " max=" + std::to_string(max);
    const Answer answer = play(call, total, count, sessions);
    give(answer, "session", OLM_DSESS_ADMIN_FREE_SESSIONS, count, sessions);
    *total = answer.number("total", *count);
    return answer.status();
}

std::uint32_t olm_dsess_admin_terminate_sessions(void* handle, const SecInfo* sec, const Query* query) {
    return play("terminate_sessions" + shown(handle, sec) + shown(query)).status();
}

std::uint32_t olm_dsess_admin_refresh_sessions(void* handle, const SecInfo* sec, const Query* query) {
    return play("refresh_sessions" + shown(handle, sec) + shown(query)).status();
}

std::uint32_t olm_dsess_admin_get_trace_level(void* handle, const SecInfo* sec, std::int32_t* level) {
    const Answer answer = play("get_trace_level" + shown(handle, sec), level);
    *level = answer.number("level", *level);
    return answer.status();
}

std::uint32_t olm_dsess_admin_set_trace_level(void* handle, const SecInfo* sec, std::int32_t level) {
    return play("set_trace_level" + shown(handle, sec) + " " + std::to_string(level)).status();
}

void olm_dsess_admin_free(const olm_dsess_admin_free_info_t* info) {
    const auto found = g_results.find(info->kind);
    const bool own = found != g_results.end() && found->second.address == info->result;
    play("free kind=" + std::to_string(info->kind) + " count=" + std::to_string(info->count) +
         (own ? " own" : " stray"));
    if (own) {
        for (std::string& block : found->second.blocks) {
            block.assign(block.size(), '\xDD');
        }
        g_released.push_back(std::move(found->second));
        g_results.erase(found);
    }
}
