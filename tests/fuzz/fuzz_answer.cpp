/// Any bytes as an answer: refused whole, or what they say fits their counts and is harmless to walk. The first byte
/// chooses the shape expected, and where the answer is cut.

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

#include "Require.h"
#include "admin/client/answer/AnswerReader.h"
#include "admin/client/base/Failure.h"
#include "runtime/qel_utf8.h"

using namespace olmdsess;

namespace {

void requireText(const char* text) {
    REQUIRE(text != nullptr && qel_utf8_is_text(text));
}

void requireRecords(Answer& answer) {
    for (const olm_dsess_admin_realm_t& realm : answer.realms) {
        requireText(realm.name);
        REQUIRE((realm.replica_set_count == 0) == (realm.replica_set_names == nullptr));
        for (std::int32_t name = 0; name < realm.replica_set_count; ++name) {
            requireText(realm.replica_set_names[name]);
        }
    }
    for (const auto& [name, time] : answer.members) {
        requireText(name);
    }
    for (const auto& [user, id, time] : answer.sessions) {
        requireText(user);
        requireText(id);
    }
}

/// Whether a text, cut into pieces of up to so many bytes, is an answer.
bool takes(AnswerReader& reader, AnswerShape shape, std::string_view text, std::size_t longest) {
    try {
        for (std::size_t at = 0, piece = 0; at < text.size(); at += piece) {
            piece = longest > text.size() ? longest : 1 + at * at % longest;
            // A copy of its own, so that no byte before or behind it is read unnoticed.
            const std::vector<char> bytes(text.begin() + at, text.begin() + std::min(at + piece, text.size()));
            reader.read({bytes.data(), bytes.size()});
        }
        reader.finish();
        return true;
    } catch (const Failure& failure) {
        REQUIRE(failure.status == kStatusAnswerNotUnderstood ||
                (failure.status == kStatusListingTooLong && shape == AnswerShape::kSessions));
        return false;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const auto shape = static_cast<AnswerShape>(data[0] % 6);
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    AnswerReader whole(shape, 7);
    const bool isWhole = takes(whole, shape, text, text.size() + 1);
    AnswerReader reader(shape, 7);
    REQUIRE(takes(reader, shape, text, 1 + data[0] / 6) == isWhole);
    REQUIRE(text.starts_with(reader.head()));
    if (!isWhole) {
        return 0;
    }
    Answer& answer = reader.answer();
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
