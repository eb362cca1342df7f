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

    /// The bytes of all records and texts.
    std::size_t keptBytes() const {
        return texts.bytes() + realms.bytes() + replicaSetNames.bytes() + members.bytes() + sessions.bytes();
    }
};

/// The most bytes of records and texts that are kept of an answer: 2 GiB, or half of the machine's memory where that is
/// less.
std::size_t mostKeptBytes();

inline constexpr char kTooLong[] = "it is too long";

/// Reads one answer while its bytes come. Of its text it keeps the head and the fields that are wanted. So what is
/// limited is what it keeps, and with it how much may be passed over.
class AnswerReader {
  public:
    /// How many bytes of the head may be shown, and how many are kept. More are kept, so that a password which begins
    /// among the shown bytes is there to its end and can be masked.
    static constexpr std::size_t kShownBytes = 2048;
    static constexpr std::size_t kHeadBytes = kShownBytes + protocol::kMaxRequestBytes;

    /// The estimate for one session: a record of 24 bytes, an identifier of 32, and a short name. A listing whose count
    /// times this does not fit into `mostKept` is refused before its sessions come.
    static constexpr std::size_t kSessionBytes = 64;

    /// Throws std::bad_alloc.
    AnswerReader(AnswerShape shape, std::int32_t requestId, std::size_t mostKept = mostKeptBytes());
    ~AnswerReader();
    AnswerReader(const AnswerReader&) = delete;
    AnswerReader& operator=(const AnswerReader&) = delete;

    /// Takes the next bytes, cut anywhere. Nesting and memory are bounded whatever the bytes. Throws Failure when they
    /// belong to no answer, or to a listing that is too long, and std::bad_alloc; the reader then takes nothing more.
    void read(std::string_view bytes);
    /// The most bytes that any answer may have, counting those that the reader passes over.
    std::uint64_t mostBytes() const;
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
    void limitLength() const;

    const AnswerShape m_shape;
    const std::size_t m_mostKept;
    Answer m_answer;
    std::string m_head;
    std::uint64_t m_bytes = 0;  // that came so far
    std::unique_ptr<Parser> m_parser;
};

}  // namespace olmdsess
