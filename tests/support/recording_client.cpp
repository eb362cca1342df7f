/// An admin client library that talks to no server: it records every call and plays a script.
///
/// RECORDING_LOG names the file that each call is appended to, one a line: the operation, what it was given, pointers
/// by name (ctx1, handle1), null as ~, other bytes than letters, digits and
/// -._/:*@+= as %XX.
///
/// RECORDING_SCRIPT names a file of answers, one a line: an operation without its prefix, then fields name=value with
/// text written as above. The answers to an operation are given in turn, the last one again and again; without any it
/// succeeds and finds nothing. Fields:
///   status=HEX            fails; out-parameters become garbage that must not be looked at
///   trace=LEVEL:TEXT      calls the trace function first; repeatable
///   context=1, handle=1   initialize, create_handle: leaves one although it fails
///   realm=NAME,SET,SET    member=NAME,TIME   session=FIRST,SECOND,TIME   one record; repeatable
///   label= time= second=  the cluster record
///   count= total= level=  numbers; count is the number of records unless given
///   array=0|1             the array is null, or is not, whatever it holds
///
/// What is released is filled with 0xDD first, so that a use after it shows.
#include <dlfcn.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
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

using Texts = std::vector<std::string>;
using Query = const olm_dsess_admin_session_query_t*;
using SecInfo = const olm_dsess_admin_sec_info_t*;

using std::to_string;

std::int32_t number(const std::string& text) {
    return static_cast<std::int32_t>(std::stol(text));
}

std::string encoded(const char* text) {
    std::string out = text == nullptr ? "~" : "";
    for (; text != nullptr && *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        const bool plain = byte < 0x80 && (std::isalnum(byte) != 0 || std::strchr("-._/:*@+=", byte) != nullptr);
        char escape[4];
        std::snprintf(escape, sizeof(escape), "%%%02X", byte);
        out += plain ? std::string(1, *text) : escape;
    }
    return out;
}

std::string encoded(char** values, std::int32_t count) {
    std::string out;
    for (std::int32_t i = 0; i < count; ++i) {
        out.append(i > 0 ? "," : "").append(encoded(values[i]));
    }
    return "[" + out + "]";
}

std::string decoded(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); i += text[i] == '%' ? 3 : 1) {
        out += text[i] == '%' ? static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)) : text[i];
    }
    return out;
}

Texts split(const std::string& text, char separator) {
    Texts pieces;
    std::istringstream stream(text + separator);
    for (std::string piece; std::getline(stream, piece, separator);) {
        pieces.push_back(piece);
    }
    return pieces;
}

/// A result that the utility holds, and the memory that it lies in.
struct Result {
    const void* address = nullptr;  // of the out-parameter
    const void* array = nullptr;
    std::vector<std::pair<void*, std::size_t>> blocks;

    void* take(std::size_t size) {
        blocks.emplace_back(std::calloc(1, size + 1), size);
        return blocks.back().first;
    }
    template <class T>
    T* take(std::size_t count) {
        return static_cast<T*>(take(count * sizeof(T)));
    }
    char* text(const std::string& code) {
        const std::string plain = decoded(code);
        return code == "~" ? nullptr : static_cast<char*>(std::memcpy(take(plain.size()), plain.data(), plain.size()));
    }
    void release() {
        for (const auto& [block, size] : blocks) {
            std::memset(block, 0xDD, size);
            std::free(block);
        }
    }
};
std::map<std::int32_t, Result> g_results;  // by the kind of their release

olm_dsess_admin_trace_fn g_trace = nullptr;
const olm_dsess_admin_mv_string_t* g_urls = nullptr;
const olm_dsess_admin_ssl_info_t* g_ssl = nullptr;
std::string g_settings;

// A context or handle is its name.
std::string nameOf(const void* pointer) {
    return pointer == nullptr ? "~" : *static_cast<const std::string*>(pointer);
}

void* create(const char* kind, int& count) {
    return new std::string(kind + to_string(++count));
}

void destroy(void* pointer) {
    delete static_cast<std::string*>(pointer);
}

std::string settings() {
    return "urls=" + encoded(g_urls->values, g_urls->count) +
           " dns=" + encoded(g_ssl->server_dns.values, g_ssl->server_dns.count) +
           " keyfile=" + encoded(g_ssl->keyfile) + " stash=" + encoded(g_ssl->keyfile_stash) +
           " label=" + encoded(g_ssl->keyfile_label) + " fips=" + to_string(g_ssl->fips_enabled);
}

std::map<std::string, std::deque<Texts>> readScript() {
    std::map<std::string, std::deque<Texts>> script;
    std::ifstream file(std::getenv("RECORDING_SCRIPT"));
    for (std::string line; std::getline(file, line);) {
        const Texts fields = split(line, ' ');
        script[fields.front()].push_back(fields);
    }
    return script;
}

/// One call: what is recorded of it, and the script's answer to it.
class Call {
  public:
    explicit Call(const char* operation) : m_line(operation) {
        static auto script = readScript();
        auto& answers = script[operation];
        m_fields = answers.empty() ? Texts() : answers.front();
        if (answers.size() > 1) {
            answers.pop_front();
        }
    }
    Call(const char* operation, const void* handle, SecInfo sec) : Call(operation) {
        with(nameOf(handle) + " sec=" + encoded(sec->user_name) + "," + encoded(sec->reserved) + "," +
             encoded(sec->login_id) + "," + encoded(sec->password));
    }
    Call& with(const std::string& text) {
        m_line += " " + text;
        return *this;
    }
    Call& with(Query query) {
        // The value list is longer than its count: a null ends it.
        const olm_dsess_admin_mv_string_t& list = query->value_list;
        return with("realm=" + encoded(query->realm) + " by=" + encoded(query->selector_text1) + "," +
                    encoded(query->selector_text2) + " values=" + to_string(list.count) +
                    encoded(list.values, list.count + 1) + " reserved=" + to_string(query->reserved1) + "," +
                    to_string(query->reserved2));
    }
    Texts all(const std::string& name) const {
        Texts values;
        for (const std::string& field : m_fields) {
            if (field.rfind(name + "=", 0) == 0) {
                values.push_back(field.substr(name.size() + 1));
            }
        }
        return values;
    }
    std::string field(const std::string& name, const std::string& absent) const {
        const Texts values = all(name);
        return values.empty() ? absent : values.back();
    }
    std::int32_t value(const std::string& name, std::int32_t absent = 0) const {
        return number(field(name, to_string(absent)));
    }
    /// Records the call, plays its trace lines, fills `out` with garbage on failure, returns the status.
    template <class... Out>
    std::uint32_t play(Out*... out) {
        std::ofstream(std::getenv("RECORDING_LOG"), std::ios::app) << m_line << '\n';
        for (const std::string& trace : all("trace")) {
            g_trace(number(trace), "%s", decoded(trace.substr(trace.find(':') + 1)).c_str());
        }
        const auto status = static_cast<std::uint32_t>(std::stoul(field("status", "0"), nullptr, 16));
        if (status != 0) {
            (std::memset(static_cast<void*>(out), 0x5D, sizeof(Out)), ...);
        }
        return status;
    }

  private:
    std::string m_line;
    Texts m_fields;
};

/// Gives the records that `fill` makes of the answer's fields `name`, to be released as `kind`.
template <class Record, class Fill>
void give(const Call& call, const char* name, std::int32_t kind, std::int32_t* count, Record** records, Fill fill) {
    Result result;
    const Texts items = call.all(name);
    *count = call.value("count", static_cast<std::int32_t>(items.size()));
    *records = call.value("array", !items.empty()) != 0 ? result.take<Record>(items.size()) : nullptr;
    for (std::size_t i = 0; i < items.size(); ++i) {
        (*records)[i] = fill(result, split(items[i], ','));
    }
    result.address = records;
    result.array = *records;
    if (*records != nullptr || kind == OLM_DSESS_ADMIN_FREE_REALMS) {
        g_results[kind] = result;
    }
}

void giveCluster(const Call& call, olm_dsess_admin_cluster_t* cluster) {
    Result& result = g_results[OLM_DSESS_ADMIN_FREE_CLUSTER] = {cluster, nullptr, {}};
    *cluster = {result.text(call.field("label", "key")), call.value("time"), call.value("second")};
}

olm_dsess_admin_realm_t makeRealm(Result& result, const Texts& fields) {
    const std::size_t count = fields.size() - 1;
    char** names = count == 0 ? nullptr : result.take<char*>(count);
    for (std::size_t i = 0; i < count; ++i) {
        names[i] = result.text(fields[i + 1]);
    }
    return {result.text(fields[0]), static_cast<std::int32_t>(count), names};
}

}  // namespace

std::uint32_t olm_dsess_admin_initialize(std::int32_t timeout, const olm_dsess_admin_mv_string_t* urls,
                                         const olm_dsess_admin_ssl_info_t* ssl, olm_dsess_admin_trace_fn trace,
                                         void** context) {
    g_urls = urls;
    g_ssl = ssl;
    g_settings = settings();
    g_trace = trace;
    const bool exported = reinterpret_cast<void*>(trace) == dlsym(RTLD_DEFAULT, "olmdsess_admin_client_trace");
    Call call("initialize");
    call.with("timeout=" + to_string(timeout)).with(g_settings).with(exported ? "trace=exported" : "trace=other");
    const std::uint32_t status = call.with("context=" + nameOf(*context)).play();
    if (status == 0 || call.value("context") != 0) {
        static int count = 0;
        *context = create("ctx", count);
    }
    return status;
}

std::uint32_t olm_dsess_admin_create_handle(void* context, void** handle) {
    Call call("create_handle");
    const std::uint32_t status = call.with(nameOf(context)).with("handle=" + nameOf(*handle)).play();
    if (status == 0 || call.value("handle") != 0) {
        static int count = 0;
        *handle = create("handle", count);
    }
    return status;
}

void olm_dsess_admin_release_handle(void* context, void** handle) {
    Call("release_handle").with(nameOf(context)).with(nameOf(*handle)).play();
    destroy(*handle);
}

void olm_dsess_admin_shutdown(void** context) {
    Call("shutdown").with(nameOf(*context)).with(settings() == g_settings ? "settings=kept" : "settings=lost").play();
    destroy(*context);
}

std::uint32_t olm_dsess_admin_get_cluster_info(void* handle, SecInfo sec, std::int32_t* count,
                                               olm_dsess_admin_realm_t** realms, olm_dsess_admin_cluster_t* cluster) {
    Call call("get_cluster_info", handle, sec);
    const std::uint32_t status = call.play(count, realms, cluster);
    if (status == 0) {
        give(call, "realm", OLM_DSESS_ADMIN_FREE_REALMS, count, realms, makeRealm);
        giveCluster(call, cluster);
    }
    return status;
}

std::uint32_t olm_dsess_admin_get_replica_set_info(void* handle, SecInfo sec, const char* name, std::int32_t* count,
                                                   olm_dsess_admin_replica_set_record_t** records) {
    Call call("get_replica_set_info", handle, sec);
    const std::uint32_t status = call.with(encoded(name)).play(count, records);
    if (status == 0) {
        give(call, "member", OLM_DSESS_ADMIN_FREE_REPLICA_SET, count, records, [](Result& result, const Texts& fields) {
            return olm_dsess_admin_replica_set_record_t{result.text(fields[0]), number(fields[1])};
        });
    }
    return status;
}

std::uint32_t olm_dsess_admin_generate_new_key(void* handle, SecInfo sec, olm_dsess_admin_cluster_t* cluster) {
    Call call("generate_new_key", handle, sec);
    const std::uint32_t status = call.play(cluster);
    if (status == 0) {
        giveCluster(call, cluster);
    }
    return status;
}

std::uint32_t olm_dsess_admin_list_sessions(void* handle, SecInfo sec, Query query, std::int32_t max,
                                            std::int32_t* total, std::int32_t* count,
                                            olm_dsess_admin_session_t** sessions) {
    Call call("list_sessions", handle, sec);
    const std::uint32_t status = call.with(query).with("max=" + to_string(max)).play(total, count, sessions);
    if (status == 0) {
        give(call, "session", OLM_DSESS_ADMIN_FREE_SESSIONS, count, sessions, [](Result& result, const Texts& fields) {
            return olm_dsess_admin_session_t{result.text(fields[0]), result.text(fields[1]), number(fields[2])};
        });
        *total = call.value("total", *count);
    }
    return status;
}

std::uint32_t olm_dsess_admin_terminate_sessions(void* handle, SecInfo sec, Query query) {
    return Call("terminate_sessions", handle, sec).with(query).play();
}

std::uint32_t olm_dsess_admin_refresh_sessions(void* handle, SecInfo sec, Query query) {
    return Call("refresh_sessions", handle, sec).with(query).play();
}

std::uint32_t olm_dsess_admin_get_trace_level(void* handle, SecInfo sec, std::int32_t* level) {
    Call call("get_trace_level", handle, sec);
    const std::uint32_t status = call.play(level);
    if (status == 0) {
        *level = call.value("level");
    }
    return status;
}

std::uint32_t olm_dsess_admin_set_trace_level(void* handle, SecInfo sec, std::int32_t level) {
    return Call("set_trace_level", handle, sec).with(to_string(level)).play();
}

void olm_dsess_admin_free(const olm_dsess_admin_free_info_t* info) {
    const auto found = g_results.find(info->kind);
    const bool own = found != g_results.end() && found->second.address == info->result &&
                     (info->kind == OLM_DSESS_ADMIN_FREE_CLUSTER ||
                      *static_cast<const void* const*>(info->result) == found->second.array);
    Call call("free");
    call.with("kind=" + to_string(info->kind))
        .with("count=" + to_string(info->count))
        .with(own ? "own" : "stray")
        .play();
    if (own) {
        found->second.release();
        g_results.erase(found);
    }
}
