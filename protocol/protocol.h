/// Names on the wire, shared by the client library and the server: methods, fields, errors. docs/protocol.md explains
/// them; nothing of them is spelled a second time anywhere.
#pragma once

#include <cstddef>
#include <cstdint>

namespace protocol {

/// Every request is a POST to `/<instance>` followed by one of these.
inline constexpr char kServicePath[] = "/services/DSessAdmin";
inline constexpr char kProxyServicePath[] = "/services/DSessAdminProxy";

inline constexpr char kContentType[] = "application/json";

/// The header field `DSess-Unavailable: store`. An answer of status 503 has it when the server's store is the cause;
/// without it the server is busy.
inline constexpr char kUnavailable[] = "DSess-Unavailable";
inline constexpr char kStore[] = "store";

namespace method {
inline constexpr char kClusterGet[] = "cluster.get";
inline constexpr char kReplicaSetGet[] = "replicaSet.get";
inline constexpr char kKeyChange[] = "key.change";
inline constexpr char kSessionList[] = "session.list";
inline constexpr char kSessionTerminate[] = "session.terminate";
inline constexpr char kSessionRefresh[] = "session.refresh";
inline constexpr char kTraceGet[] = "trace.get";
inline constexpr char kTraceSet[] = "trace.set";
}  // namespace method

namespace field {
// JSON-RPC 2.0 envelope
inline constexpr char kJsonRpc[] = "jsonrpc";
inline constexpr char kVersion[] = "2.0";  // the value of kJsonRpc
inline constexpr char kId[] = "id";
inline constexpr char kMethod[] = "method";
inline constexpr char kParams[] = "params";
inline constexpr char kResult[] = "result";
inline constexpr char kError[] = "error";
inline constexpr char kErrorCode[] = "code";
inline constexpr char kErrorMessage[] = "message";
inline constexpr char kErrorData[] = "data";
inline constexpr char kClusterId[] = "clusterId";  // of an answer, and of a change that demands it
// of a request that changes something
inline constexpr char kChangeId[] = "changeId";
// who asks
inline constexpr char kSecurity[] = "security";
inline constexpr char kUser[] = "user";
inline constexpr char kPassword[] = "password";
inline constexpr char kLoginId[] = "loginId";
// records
inline constexpr char kName[] = "name";
inline constexpr char kTime[] = "time";
inline constexpr char kCount[] = "count";
inline constexpr char kTotal[] = "total";
inline constexpr char kRealms[] = "realms";
inline constexpr char kReplicaSets[] = "replicaSets";
inline constexpr char kKey[] = "key";
inline constexpr char kLabel[] = "label";
inline constexpr char kPreviousTime[] = "previousTime";
inline constexpr char kReplicaSet[] = "replicaSet";
inline constexpr char kRecords[] = "records";
inline constexpr char kRealm[] = "realm";
inline constexpr char kSelector[] = "selector";
inline constexpr char kValue[] = "value";
inline constexpr char kMax[] = "max";
inline constexpr char kSessions[] = "sessions";
inline constexpr char kLevel[] = "level";
}  // namespace field

/// Values of field::kSelector.
namespace selector {
inline constexpr char kUser[] = "user";
inline constexpr char kSession[] = "session";
}  // namespace selector

/// Values of field::kName in an error's field::kErrorData. A server that answers with one of them changed nothing.
namespace error {
inline constexpr char kIdentityRefused[] = "identity-refused";
inline constexpr char kNotPermitted[] = "not-permitted";
inline constexpr char kUnknownRealm[] = "unknown-realm";
inline constexpr char kUnknownReplicaSet[] = "unknown-replica-set";
inline constexpr char kNoMatchingSession[] = "no-matching-session";
inline constexpr char kInvalidValue[] = "invalid-value";
inline constexpr char kInvalidRequest[] = "invalid-request";
inline constexpr char kServerFailure[] = "server-failure";
inline constexpr char kOtherCluster[] = "other-cluster";
inline constexpr char kOtherChange[] = "other-change";
}  // namespace error

/// Values of field::kErrorCode (JSON-RPC 2.0, section 5.1).
namespace code {
inline constexpr int kParseError = -32700;
inline constexpr int kInvalidRequest = -32600;
inline constexpr int kMethodNotFound = -32601;
inline constexpr int kInvalidParams = -32602;
inline constexpr int kInternalError = -32603;
/// All errors of this service's own; their name tells them apart.
inline constexpr int kServiceError = -32000;
}  // namespace code

/// A server reads no request longer than this.
inline constexpr std::size_t kMaxRequestBytes = std::size_t{64} * 1024;

}  // namespace protocol
