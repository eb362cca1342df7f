/// Any bytes as an answer: refused whole, or what they say fits their counts and is harmless to walk. The first byte
/// chooses the shape expected.

#include <cstdint>
#include <string_view>

#include "Require.h"
#include "admin/client/AnswerParser.h"
#include "runtime/qel_utf8.h"

using namespace olmdsess;

namespace {

void requireTexts(std::initializer_list<const char*> texts) {
    for (const char* text : texts) {
        REQUIRE(text != nullptr && qel_utf8_is_text(text));
    }
}

void requireRecords(Answer& answer) {
    for (std::size_t index = 0; index < answer.realms.size(); ++index) {
        const olm_dsess_admin_realm_t& realm = answer.realms.data()[index];
        requireTexts({realm.name});
        REQUIRE((realm.replica_set_count == 0) == (realm.replica_set_names == nullptr));
        for (std::int32_t name = 0; name < realm.replica_set_count; ++name) {
            requireTexts({realm.replica_set_names[name]});
        }
    }
    for (std::size_t index = 0; index < answer.members.size(); ++index) {
        requireTexts({answer.members.data()[index].name});
    }
    for (std::size_t index = 0; index < answer.sessions.size(); ++index) {
        requireTexts({answer.sessions.data()[index].first_text, answer.sessions.data()[index].second_text});
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto shape = static_cast<AnswerShape>(size == 0 ? 0 : data[0] % 6);
    Answer answer;
    answer.text.append(reinterpret_cast<const char*>(data) + 1, size == 0 ? 0 : size - 1);
    answer.text.append('\0');
    if (!parseAnswer(shape, 7, answer).empty()) {
        return 0;
    }
    if (answer.errorName != nullptr) {
        requireTexts({answer.errorName, answer.errorMessage});
        return 0;
    }
    const auto records = answer.realms.size() + answer.members.size() + answer.sessions.size();
    REQUIRE(shape == AnswerShape::kCount || records == static_cast<std::size_t>(answer.count));
    REQUIRE(shape != AnswerShape::kSessions || answer.total >= answer.count);
    REQUIRE((shape == AnswerShape::kCluster || shape == AnswerShape::kKey) == (answer.key.key_label != nullptr));
    requireRecords(answer);
    return 0;
}
