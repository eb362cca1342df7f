/// An admin client library that talks to no server: it records every call and plays a script.
///
/// RECORDING_LOG names the file that each call is appended to, one a line: the operation, what it was given, pointers
/// by name (ctx1, handle1; "stray" for one that is not alive), null as ~, other bytes than letters, digits and
/// -._/:*@+= as %XX.
///
/// RECORDING_SCRIPT names a file of answers, one a line: an operation without its prefix, then fields name=value with
/// text written as above. The answers to an operation are given in turn, the last one again and again; without any it
/// succeeds and finds nothing. Fields:
///   status=HEX            fails; out-parameters become garbage that must not be looked at
///   trace=LEVEL:TEXT      calls the trace function first; repeatable
///   context=1, handle=1   initialize, create_handle: leaves one although it fails
///   realm=NAME:SET,SET    member=NAME@TIME   session=FIRST,SECOND,TIME   one record; repeatable
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

constexpr int kReleased = 0xDD;

std::string encoded(const char* text) {
    if (text == nullptr) {
        return "~";
    }
    std::string out;
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (std::isalnum(byte) != 0 || std::strchr("-._/:*@+=", byte) != nullptr) {
            out += *text;
        } else {
            char escape[4];
            std::snprintf(escape, sizeof(escape), "%%%02X", byte);
            out += escape;
        }
    }
    return out;
}

std::string decoded(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string encodedList(char** values, std::int32_t count) {
    std::string out;
    for (std::int32_t i = 0; i < count; ++i) {
        out.append(i > 0 ? "," : "").append(encoded(values[i]));
    }
    return "[" + out + "]";
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, separator);) {
        pieces.push_back(piece);
    }
    return pieces;
}

void record(const std::string& line) {
    std::ofstream(std::getenv("RECORDING_LOG"), std::ios::app) << line << '\n';
}

/// Memory handed to the utility, until it is released.
class Storage {
  public:
    void* take(std::size_t size) {
        m_blocks.emplace_back(std::calloc(1, size + 1), size);
        return m_blocks.back().first;
    }
    template <class T>
    T* array(std::size_t count) {
        return static_cast<T*>(take(count * sizeof(T)));
    }
    char* text(const std::string& code) {
        const std::string plain = decoded(code);
        return code == "~" ? nullptr : static_cast<char*>(std::memcpy(take(plain.size()), plain.data(), plain.size()));
    }
    void release() {
        for (const auto& [block, size] : m_blocks) {
            std::memset(block, kReleased, size);
            std::free(block);
        }
        m_blocks.clear();
    }

  private:
    std::vector<std::pair<void*, std::size_t>> m_blocks;
};

/// Results that the utility holds, by the kind of their release.
struct Result {
    const void* address;
    const void* array;
    Storage storage;
};
std::map<std::int32_t, Result> g_results;

/// Contexts and handles that are alive.
std::map<const void*, std::string> g_names;
int g_contexts = 0;
int g_handles = 0;

olm_dsess_admin_trace_fn g_trace = nullptr;
const olm_dsess_admin_mv_string_t* g_urls = nullptr;
const olm_dsess_admin_ssl_info_t* g_ssl = nullptr;
std::string g_settings;

std::string nameOf(const void* pointer) {
    const auto found = g_names.find(pointer);
    return pointer == nullptr ? "~" : found == g_names.end() ? "stray" : found->second;
}

void* create(const char* kind, int number) {
    void* made = std::malloc(1);
    g_names[made] = kind + std::to_string(number);
    return made;
}

void destroy(void* pointer) {
    if (g_names.erase(pointer) > 0) {
        std::free(pointer);
    }
}

std::string settings() {
    return "urls=" + encodedList(g_urls->values, g_urls->count) +
           " dns=" + encodedList(g_ssl->server_dns.values, g_ssl->server_dns.count) +
           " keyfile=" + encoded(g_ssl->keyfile) + " stash=" + encoded(g_ssl->keyfile_stash) +
           " label=" + encoded(g_ssl->keyfile_label) + " fips=" + std::to_string(g_ssl->fips_enabled);
}

/// One call: what is recorded of it, and the script's answer to it.
class Call {
  public:
    explicit Call(const char* operation) : m_line(operation) {
        static std::map<std::string, std::deque<std::vector<std::string>>> script = readScript();
        auto& answers = script[operation];
        if (!answers.empty()) {
            m_fields = answers.front();
            if (answers.size() > 1) {
                answers.pop_front();
            }
        }
    }
    Call& with(const std::string& text) {
        m_line += " " + text;
        return *this;
    }
    Call& server(const void* handle, const olm_dsess_admin_sec_info_t* sec) {
        return with(nameOf(handle) + " sec=" + encoded(sec->user_name) + "," + encoded(sec->reserved) + "," +
                    encoded(sec->login_id) + "," + encoded(sec->password));
    }
    Call& query(const olm_dsess_admin_session_query_t* query) {
        // The value list is longer than its count: a null ends it.
        return with("realm=" + encoded(query->realm) + " by=" + encoded(query->selector_text1) + "," +
                    encoded(query->selector_text2) + " values=" + std::to_string(query->value_list.count) +
                    encodedList(query->value_list.values, query->value_list.count + 1) +
                    " reserved=" + std::to_string(query->reserved1) + "," + std::to_string(query->reserved2));
    }
    std::vector<std::string> all(const std::string& name) const {
        std::vector<std::string> values;
        for (const std::string& field : m_fields) {
            if (field.rfind(name + "=", 0) == 0) {
                values.push_back(field.substr(name.size() + 1));
            }
        }
        return values;
    }
    std::string field(const std::string& name, const std::string& absent) const {
        const auto values = all(name);
        return values.empty() ? absent : values.back();
    }
    std::int32_t number(const std::string& name, std::int32_t absent) const {
        return static_cast<std::int32_t>(std::stol(field(name, std::to_string(absent))));
    }
    /// Records the call, plays its trace lines, returns its status.
    std::uint32_t play() {
        record(m_line);
        for (const std::string& trace : all("trace")) {
            const std::size_t colon = trace.find(':');
            g_trace(std::stoi(trace), "%s", decoded(trace.substr(colon + 1)).c_str());
        }
        return static_cast<std::uint32_t>(std::stoul(field("status", "0"), nullptr, 16));
    }

  private:
    static std::map<std::string, std::deque<std::vector<std::string>>> readScript() {
        std::map<std::string, std::deque<std::vector<std::string>>> script;
        std::ifstream file(std::getenv("RECORDING_SCRIPT"));
        for (std::string line; std::getline(file, line);) {
            auto fields = split(line, ' ');
            const std::string operation = fields.front();
            script[operation].push_back(std::move(fields));
        }
        return script;
    }

    std::string m_line;
    std::vector<std::string> m_fields;
};

template <class... Out>
std::uint32_t poison(std::uint32_t status, Out*... out) {
    (std::memset(static_cast<void*>(out), 0x5D, sizeof(Out)), ...);
    return status;
}

/// Gives the records that `fill` makes of the answer's fields `name`, to be released as `kind`.
template <class Record, class Fill>
void give(const Call& call, const char* name, std::int32_t kind, std::int32_t* count, Record** records, Fill fill) {
    Storage storage;
    const auto items = call.all(name);
    *count = call.number("count", static_cast<std::int32_t>(items.size()));
    *records = call.number("array", !items.empty()) != 0 ? storage.array<Record>(items.size()) : nullptr;
    for (std::size_t i = 0; i < items.size(); ++i) {
        fill(items[i], (*records)[i], storage);
    }
    if (*records != nullptr || kind == OLM_DSESS_ADMIN_FREE_REALMS) {
        g_results[kind] = {records, *records, storage};
    }
}

void giveCluster(const Call& call, olm_dsess_admin_cluster_t* cluster) {
    Storage storage;
    *cluster = {storage.text(call.field("label", "key")), call.number("time", 0), call.number("second", 0)};
    g_results[OLM_DSESS_ADMIN_FREE_CLUSTER] = {cluster, nullptr, storage};
}

std::int32_t seconds(const std::string& text) {
    return static_cast<std::int32_t>(std::stol(text));
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
    call.with("timeout=" + std::to_string(timeout)).with(g_settings).with(exported ? "trace=exported" : "trace=other");
    const std::uint32_t status = call.with("context=" + nameOf(*context)).play();
    if (status == 0 || call.number("context", 0) != 0) {
        *context = create("ctx", ++g_contexts);
    }
    return status;
}

std::uint32_t olm_dsess_admin_create_handle(void* context, void** handle) {
    Call call("create_handle");
    const std::uint32_t status = call.with(nameOf(context)).with("handle=" + nameOf(*handle)).play();
    if (status == 0 || call.number("handle", 0) != 0) {
        *handle = create("handle", ++g_handles);
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

std::uint32_t olm_dsess_admin_get_cluster_info(void* handle, const olm_dsess_admin_sec_info_t* sec, std::int32_t* count,
                                               olm_dsess_admin_realm_t** realms, olm_dsess_admin_cluster_t* cluster) {
    Call call("get_cluster_info");
    if (const std::uint32_t status = call.server(handle, sec).play(); status != 0) {
        return poison(status, count, realms, cluster);
    }
    give(call, "realm", OLM_DSESS_ADMIN_FREE_REALMS, count, realms,
         [](const std::string& item, olm_dsess_admin_realm_t& realm, Storage& storage) {
             const auto names = split(item.substr(item.find(':') + 1), ',');
             realm.name = storage.text(item.substr(0, item.find(':')));
             realm.replica_set_count = static_cast<std::int32_t>(names.size());
             realm.replica_set_names = names.empty() ? nullptr : storage.array<char*>(names.size());
             for (std::size_t i = 0; i < names.size(); ++i) {
                 realm.replica_set_names[i] = storage.text(names[i]);
             }
         });
    giveCluster(call, cluster);
    return 0;
}

std::uint32_t olm_dsess_admin_get_replica_set_info(void* handle, const olm_dsess_admin_sec_info_t* sec,
                                                   const char* name, std::int32_t* count,
                                                   olm_dsess_admin_replica_set_record_t** records) {
    Call call("get_replica_set_info");
    if (const std::uint32_t status = call.server(handle, sec).with(encoded(name)).play(); status != 0) {
        return poison(status, count, records);
    }
    give(call, "member", OLM_DSESS_ADMIN_FREE_REPLICA_SET, count, records,
         [](const std::string& item, olm_dsess_admin_replica_set_record_t& member, Storage& storage) {
             member = {storage.text(item.substr(0, item.rfind('@'))), seconds(item.substr(item.rfind('@') + 1))};
         });
    return 0;
}

std::uint32_t olm_dsess_admin_generate_new_key(void* handle, const olm_dsess_admin_sec_info_t* sec,
                                               olm_dsess_admin_cluster_t* cluster) {
    Call call("generate_new_key");
    if (const std::uint32_t status = call.server(handle, sec).play(); status != 0) {
        return poison(status, cluster);
    }
    giveCluster(call, cluster);
    return 0;
}

std::uint32_t olm_dsess_admin_list_sessions(void* handle, const olm_dsess_admin_sec_info_t* sec,
                                            const olm_dsess_admin_session_query_t* query, std::int32_t max,
                                            std::int32_t* total, std::int32_t* count,
                                            olm_dsess_admin_session_t** sessions) {
    Call call("list_sessions");
    call.server(handle, sec).query(query).with("max=" + std::to_string(max));
    if (const std::uint32_t status = call.play(); status != 0) {
        return poison(status, total, count, sessions);
    }
    give(call, "session", OLM_DSESS_ADMIN_FREE_SESSIONS, count, sessions,
         [](const std::string& item, olm_dsess_admin_session_t& session, Storage& storage) {
             const auto fields = split(item, ',');
             session = {storage.text(fields[0]), storage.text(fields[1]), seconds(fields[2])};
         });
    *total = call.number("total", *count);
    return 0;
}

std::uint32_t olm_dsess_admin_terminate_sessions(void* handle, const olm_dsess_admin_sec_info_t* sec,
                                                 const olm_dsess_admin_session_query_t* query) {
    return Call("terminate_sessions").server(handle, sec).query(query).play();
}

std::uint32_t olm_dsess_admin_refresh_sessions(void* handle, const olm_dsess_admin_sec_info_t* sec,
                                               const olm_dsess_admin_session_query_t* query) {
    return Call("refresh_sessions").server(handle, sec).query(query).play();
}

std::uint32_t olm_dsess_admin_get_trace_level(void* handle, const olm_dsess_admin_sec_info_t* sec,
                                              std::int32_t* level) {
    Call call("get_trace_level");
    if (const std::uint32_t status = call.server(handle, sec).play(); status != 0) {
        return poison(status, level);
    }
    *level = call.number("level", 0);
    return 0;
}

std::uint32_t olm_dsess_admin_set_trace_level(void* handle, const olm_dsess_admin_sec_info_t* sec, std::int32_t level) {
    return Call("set_trace_level").server(handle, sec).with(std::to_string(level)).play();
}

void olm_dsess_admin_free(const olm_dsess_admin_free_info_t* info) {
    const auto found = g_results.find(info->kind);
    const bool own = found != g_results.end() && found->second.address == info->result &&
                     (info->kind == OLM_DSESS_ADMIN_FREE_CLUSTER ||
                      *static_cast<const void* const*>(info->result) == found->second.array);
    Call("free")
        .with("kind=" + std::to_string(info->kind) + " count=" + std::to_string(info->count))
        .with(own ? "own" : "stray")
        .play();
    if (own) {
        found->second.storage.release();
        g_results.erase(found);
    }
}
