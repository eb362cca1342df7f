#include "admin/client/ResultBlock.h"

#include <cstring>

namespace olmdsess {

char* makeTextResult(std::int32_t kind, const char* text) {
    RecordList<char> copy;
    copy.append(text, std::strlen(text) + 1);
    AnswerText noText;
    NameList noNames;
    return makeResult(kind, copy, noText, noNames);
}

bool releaseResult(std::int32_t kind, void* records) {
    if (records == nullptr) {
        return false;
    }
    auto* header = static_cast<ResultHeader*>(records) - 1;
    if (header->kind != kind) {
        return false;
    }
    std::free(header->text);
    std::free(header->names);
    std::free(header);
    return true;
}

}  // namespace olmdsess
