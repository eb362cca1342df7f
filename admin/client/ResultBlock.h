/// Storage of results handed to the caller. A result is one block: a header, then the records. The header owns the text
/// that the records point to, and is found again from the address of the first record, so that one release frees all.
#pragma once

#include <cstddef>
#include <cstdint>

#include "admin/client-interface/olm_dsess_admin.h"
#include "admin/client/ReallocArray.h"

namespace olmdsess {

struct alignas(std::max_align_t) ResultHeader {
    std::int32_t kind;  ///< OLM_DSESS_ADMIN_FREE_*
    void* text;         ///< the text of the records, or null
    void* names;        ///< lists of names of the records, or null
};

/// Bytes of an answer, then the text that records point to.
using AnswerText = ReallocArray<char>;
using NameList = ReallocArray<char*>;
template <class Record>
using RecordList = ReallocArray<Record, sizeof(ResultHeader)>;

/// Makes a result of the given kind and hands it to the caller; null when there are no records.
template <class Record>
Record* makeResult(std::int32_t kind, RecordList<Record>& records, AnswerText& text, NameList& names) noexcept {
    if (records.size() == 0) {
        return nullptr;
    }
    records.trim();
    auto* header = static_cast<ResultHeader*>(records.release());
    *header = {kind, text.release(), names.release()};
    return reinterpret_cast<Record*>(header + 1);
}

/// A text of its own, to be released as a result of the given kind. Throws std::bad_alloc.
char* makeTextResult(std::int32_t kind, const char* text);

/// Releases the result whose first record lies at `records`. Null, and a result of another kind, are left alone: false.
bool releaseResult(std::int32_t kind, void* records);

}  // namespace olmdsess
