/// Reads the JSON of an answer (docs/protocol.md, "An answer"). It trusts no byte: an answer that does not have exactly
/// the shape that the request asked for is refused as a whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "admin/client-interface/olm_dsess_admin.h"
#include "admin/client/answer/ResultBlock.h"
#include "protocol/protocol.h"

namespace olmdsess {

/// Shapes of a result.
enum class AnswerShape { kCluster, kReplicaSet, kKey, kSessions, kCount, kLevel };

/// What an answer said. Which of the fields a result fills follows from its shape.
struct Answer {
    TextArena texts;  ///< what the pointers below point into
    RecordList<olm_dsess_admin_realm_t> realms;
    NameList replicaSetNames;
    RecordList<olm_dsess_admin_replica_set_record_t> members;
    RecordList<olm_dsess_admin_session_t> sessions;
    olm_dsess_admin_cluster_t key{};
    std::int32_t total = 0;
    std::int32_t count = 0;
    std::int32_t level = 0;

    const char* clusterId = nullptr;  ///< of the cluster that answered, of at most 64 bytes; null: not told
    const char* errorName = nullptr;  ///< null: the answer holds a result
    const char* errorMessage = nullptr;
};

/// Reads one answer while its bytes come. Of its text it keeps the head and the fields that are wanted.
class AnswerReader {
  public:
    /// How many bytes of the head may be shown, and how many are kept. More are kept, so that a password which begins
    /// among the shown bytes is there to its end and can be masked.
    static constexpr std::size_t kShownBytes = 2048;
    static constexpr std::size_t kHeadBytes = kShownBytes + protocol::kMaxRequestBytes;

    /// Throws std::bad_alloc.
    AnswerReader(AnswerShape shape, std::int32_t requestId);
    ~AnswerReader();
    AnswerReader(const AnswerReader&) = delete;
    AnswerReader& operator=(const AnswerReader&) = delete;

    /// Takes the next bytes, cut anywhere. Nesting and memory are bounded whatever the bytes. Throws Failure when they
    /// belong to no answer, and std::bad_alloc; the reader then takes nothing more.
    void read(std::string_view bytes);
    /// There are no more bytes. Throws Failure when what came is no answer, and std::bad_alloc.
    void finish();
    /// The first bytes as they came, at most kHeadBytes.
    std::string_view head() const { return m_head; }
    /// What it said, after finish().
    Answer& answer() { return m_answer; }

  private:
    struct Parser;

    /// Gives the parser bytes, the last ones unless there are `more`.
    void parse(bool more, std::string_view bytes);

    Answer m_answer;
    std::string m_head;
    std::size_t m_bytes = 0;  // that came so far
    std::unique_ptr<Parser> m_parser;
};

}  // namespace olmdsess
