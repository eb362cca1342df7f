/// What a request asks for: its JSON, taken apart and held against the table of methods. docs/protocol.md has the form;
/// an example:
///
///     {"jsonrpc": "2.0", "id": 1, "method": "session.terminate",
///      "params": {"security": {"user": "root", "password": "...", "loginId": "..."}, "changeId": "...",
///                 "realm": "east", "selector": "user", "value": "mary"}}
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "runtime/SecretBuffer.h"
#include "server/service/Caller.h"
#include "server/service/Json.h"

namespace dsessd {

struct Method;

/// What stands in the params and their security. A text that has not come, or was null, is a null pointer; all others
/// end in a NUL.
struct Parameters {
    std::string_view user;
    std::string_view password;
    std::string_view loginId;
    std::string_view changeId;
    /// The cluster that is to be changed, and no other; empty: whichever it is.
    std::string_view clusterId;
    std::string_view replicaSet;
    std::string_view realm;
    std::string_view selector;
    std::string_view value;
    std::int32_t max = -1;
    std::int32_t level = 0;
};

/// A field of a request: what its value may be, and where it goes.
struct FieldRule {
    enum class Kind { kText, kOptionalText, kSelector, kInteger };
    const char* name;
    Kind kind;
    std::string_view Parameters::*text = nullptr;
    /// The longest text, in bytes.
    std::size_t longest = std::numeric_limits<std::size_t>::max();
    std::int32_t Parameters::*number = nullptr;
    std::int32_t least = 0;
    std::int32_t most = 0;
};

class Request {
  public:
    /// `text`: as it came, and not looked at yet.
    explicit Request(SecretBuffer text) : m_text(std::move(text)) {}

    /// Takes the text apart, and wipes it; to be called once. Throws a Failure that says what is wrong with it. What
    /// was read until then stays, so that the refusal has the request's id.
    void read();
    bool isRead() const { return m_method != nullptr; }
    /// The request's id as JSON text, which the answer repeats.
    const std::string& id() const { return m_id; }
    /// The method that the request names. Null before read(), and when there is no such method.
    const Method* method() const { return m_method; }
    const Parameters& parameters() const { return m_parameters; }
    /// Memory that lives as long as the request and is wiped afterwards.
    boost::json::storage_ptr storage() const { return m_memory.storage(); }

    // The functions below may be called only after read() has returned without a failure.
    /// Throws a Failure when a value is out of the range that the table of methods gives it.
    void checkValues() const;

    Credentials credentials() const;
    /// Stands for all that a change is about, in printable characters.
    std::string digest() const;
    /// For the log, such as `session.list with realm east, selector user, value *, max -1`.
    std::string description() const;

  private:
    SecretBuffer m_text;
    mutable JsonMemory m_memory;
    std::optional<boost::json::value> m_document;
    std::string m_id = "null";
    const Method* m_method = nullptr;
    Parameters m_parameters;
};

}  // namespace dsessd
