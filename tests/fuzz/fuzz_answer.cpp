/// Any bytes as an answer: refused whole, or what they say fits their counts and is harmless to walk. The first byte
/// chooses the shape expected.

#include <cstdint>
#include <string_view>

#include "Require.h"
#include "admin/client/AnswerParser.h"
#include "runtime/qel_utf8.h"

using namespace olmdsess;

namespace {

void requireText(const char* text) {
    REQUIRE(text != nullptr && qel_utf8_is_text(text));
}

void requireRecords(Answer& answer) {
    for (std::size_t index = 0; index < answer.realms.size(); ++index) {
        const olm_dsess_admin_realm_t& realm = answer.realms.data()[index];
        requireText(realm.name);
        REQUIRE((realm.replica_set_count == 0) == (realm.replica_set_names == nullptr));
        for (std::int32_t name = 0; name < realm.replica_set_count; ++name) {
            requireText(realm.replica_set_names[name]);
        }
    }
    for (std::size_t index = 0; index < answer.members.size(); ++index) {
        requireText(answer.members.data()[index].name);
    }
    for (std::size_t index = 0; index < answer.sessions.size(); ++index) {
        requireText(answer.sessions.data()[index].first_text);
        requireText(answer.sessions.data()[index].second_text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input = size == 0 ? "0" : std::string(reinterpret_cast<const char*>(data), size);
    const auto shape = static_cast<AnswerShape>(static_cast<unsigned char>(input[0]) % 6);
    Answer answer;
    answer.text.append(input.data() + 1, input.size());  // with its NUL
    if (!parseAnswer(shape, 7, answer).empty()) {
        return 0;
    }
    if (answer.errorName != nullptr) {
        requireText(answer.errorName);
        requireText(answer.errorMessage);
        return 0;
    }
    const auto records = answer.realms.size() + answer.members.size() + answer.sessions.size();
    REQUIRE(shape == AnswerShape::kCount || records == static_cast<std::size_t>(answer.count));
    REQUIRE(shape != AnswerShape::kSessions || answer.total >= answer.count);
    REQUIRE((shape == AnswerShape::kCluster || shape == AnswerShape::kKey) == (answer.key.key_label != nullptr));
    requireRecords(answer);
    return 0;
}
