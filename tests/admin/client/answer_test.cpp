// The answer parser alone: what it refuses.
#include <gtest/gtest.h>

#include "admin/client/AnswerReader.h"

using namespace olmdsess;

namespace {

struct Parsed {
    /// In two pieces, the first of so many bytes.
    Parsed(AnswerShape shape, std::string_view text, std::size_t first = 0) {
        AnswerReader reader(shape, 7);
        isWhole = reader.read(text.substr(0, first)) && reader.read(text.substr(first)) && reader.finish();
        problem = reader.problem();
        answer = std::move(reader.answer());
    }
    bool isWhole;
    Answer answer;
    std::string problem;
};

std::string result(const std::string& members) {
    return R"({"jsonrpc":"2.0","id":7,"result":{)" + members + "}}";
}

enum Which { kSessions, kCluster, kError, kLevel, kCount, kReplicaSet };

const std::pair<AnswerShape, std::string> kWhole[] = {
    {AnswerShape::kSessions,
     result(R"("total":2,"count":2,"sessions":[{"id":"a","user":"\u00fc","time":5},{"id":"b","user":"","time":-5}])")},
    {AnswerShape::kCluster,
     result(R"("count":2,"realms":[{"name":"e","replicaSets":["a","b"]},{"replicaSets":["c"],"name":"w"}],)"
            R"("key":{"label":"k","time":1,"previousTime":0})")},
    {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"error":{"code":1,"message":"no","data":{"name":"n"}}})"},
    {AnswerShape::kLevel, result(R"("level":-2147483648)")},
    {AnswerShape::kCount, result(R"("count":0)")},
    {AnswerShape::kReplicaSet, result(R"("count":1,"records":[{"name":"n","time":1}])")},
};

TEST(AnswerReader, TakesFieldsInAnyOrderAndPassesOverThoseItDoesNotKnow) {
    Parsed list(AnswerShape::kSessions,
                R"( {"new":[{"id":1e5,"x":[[]]},null,true,-0.5],"result":{"sessions":[{"time":2147483647,)"
                R"("id":"\ud83d\ude00","user":"","extra":{"id":{}}}],"count":1,"total":9},"id":7,"jsonrpc":"2.0"} )");
    ASSERT_EQ(list.problem, "");
    EXPECT_STREQ(list.answer.sessions.data()[0].second_text, "\xF0\x9F\x98\x80");
    EXPECT_EQ(list.answer.sessions.data()[0].time, 2147483647);
    EXPECT_EQ(list.answer.total, 9);
    Parsed cluster(AnswerShape::kCluster, kWhole[kCluster].second);
    EXPECT_STREQ(cluster.answer.realms.data()[0].replica_set_names[1], "b");
    EXPECT_STREQ(cluster.answer.realms.data()[1].replica_set_names[0], "c");
    EXPECT_STREQ(cluster.answer.realms.data()[1].name, "w");
}

TEST(AnswerReader, ResolvesEscapesWhereverTheyStandInAText) {
    for (std::size_t length = 0; length < 40; ++length) {
        const std::string plain(length, 'x');
        const std::string written = plain + R"(\"\\\/\b\f\n\r\t\u00e4\u20AC\ud83d\ude00ä)" + plain;
        Parsed list(AnswerShape::kSessions, result(R"("total":1,"count":1,"sessions":[{"user":")" + written +
                                                   R"(","id":")" + plain + R"(","time":-2147483648}])"));
        ASSERT_EQ(list.problem, "");
        EXPECT_EQ(list.answer.sessions.data()[0].first_text, plain + "\"\\/\b\f\n\r\tä€😀ä" + plain);
        EXPECT_EQ(list.answer.sessions.data()[0].second_text, plain);
    }
}

TEST(AnswerReader, RefusesWhatIsNotExactlyAnAnswer) {
    struct Edits {
        Which answer;
        std::string part;
        std::vector<std::string> replacements;  // each of which spoils the answer
    };
    const std::string deep(100000, '[');
    const std::string nul(1, '\0');
    const std::string level = kWhole[kLevel].second;
    // clang-format off
    const Edits table[] = {
        {kLevel, level, {"", "null", "[" + level + "]", level + "x", level + nul + "x", "{\"new\":" + deep}},
        {kLevel, R"("jsonrpc":"2.0",)", {"", R"("jsonrpc":"1.0",)"}},
        {kLevel, R"("id":7,)", {"", R"("id":8,)", R"("id":7,"id":7,)", R"("id":7 "new":1,)", R"("id":7,"new":01,)", R"("id":7,"new":-,)",
                         R"("id":7,"new":1.,)", R"("id":7,"new":1e,)", R"("id":7,"new":tru,)", R"("id":7,"new":"\x",)",
                         R"("id":7,"new":"\ud83d\u0041",)", R"("id":7,"new":[1,],)", "\"id\":7,\"new\":\"\x1F\","}},
        {kLevel, R"({"level":-2147483648})", {"null", "{}", R"({"level":1},"error":null)",
                 R"({"level":1},"error":{"code":1,"message":"m","data":{"name":"n"}})", "{\"level\":1,\"new\":\"\xFF\"}",
                 "{\"level\":1,\"new\":" + deep + std::string(deep.size(), ']') + "}"}},
        {kLevel, "-2147483648", {"2147483648", "-2147483649", "18446744073709551617", "1.5", "1e3", "\"1\"", "[1]"}},
        {kError, R"(,"data":{"name":"n"})", {"", R"(,"data":{})", R"(,"data":{"name":3})"}},
        {kError, R"(,"error":{"code":1,"message":"no","data":{"name":"n"}})", {""}},
        {kSessions, R"("a")", {"null", R"("a\u0000b")", "\"\xED\xA0\x80\"", R"("\udc00")", R"("a","id":"a")"}},
        {kSessions, R"(,"time":5)", {""}},
        {kSessions, R"({"id":"b","user":"","time":-5})", {R"("b")", "[]", R"({"id":"b","user":"","time":-5},{})"}},
        {kSessions, R"("total":2)", {R"("total":1)"}},
        {kSessions, R"("count":2,)", {"", R"("count":1,)", R"("count":3,)"}},
        {kCluster, R"(["a","b"])", {R"(["a",1])", "{}"}},
        {kCount, "0}", {"-1}"}},
        {kReplicaSet, R"("count":1)", {R"("count":2)"}},
        {kSessions, kWhole[kSessions].second, {kWhole[kCount].second}},
    };
    // clang-format on
    for (const auto& [answer, part, replacements] : table) {
        ASSERT_EQ(Parsed(kWhole[answer].first, kWhole[answer].second).problem, "");
        for (const std::string& replacement : replacements) {
            std::string text = kWhole[answer].second;
            ASSERT_NE(text.find(part), std::string::npos) << part;
            text.replace(text.find(part), part.size(), replacement);
            EXPECT_NE(Parsed(kWhole[answer].first, text).problem, "") << text.substr(0, 200);
        }
    }
}

}  // namespace
