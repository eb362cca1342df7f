/// Reads answers (docs/protocol.md, "An answer"). Every byte is taken as hostile: what is not exactly an answer of the
/// expected shape to the request in question is refused whole.
#pragma once

#include <cstdint>
#include <string>

#include "admin/client-interface/olm_dsess_admin.h"
#include "admin/client/ResultBlock.h"

namespace olmdsess {

/// Shapes of a result.
enum class AnswerShape { kCluster, kReplicaSet, kKey, kSessions, kCount, kLevel };

/// What an answer said. Which of the fields a result fills follows from its shape.
struct Answer {
    AnswerText text;  ///< what the pointers below point into
    RecordList<olm_dsess_admin_realm_t> realms;
    NameList replicaSetNames;
    RecordList<olm_dsess_admin_replica_set_record_t> members;
    RecordList<olm_dsess_admin_session_t> sessions;
    olm_dsess_admin_cluster_t key{};
    std::int32_t total = 0;
    std::int32_t count = 0;
    std::int32_t level = 0;

    const char* clusterId = nullptr;  ///< of the cluster that answered; null: not told
    const char* errorName = nullptr;  ///< null: the answer holds a result
    const char* errorMessage = nullptr;
};

/// Parses `answer.text`, which ends in a NUL of its own, in place and fills the rest. Returns an empty text, or what is
/// wrong; the answer is then good for nothing. Nesting and memory are bounded whatever the text. Throws std::bad_alloc.
std::string parseAnswer(AnswerShape shape, std::int32_t requestId, Answer& answer);

}  // namespace olmdsess
