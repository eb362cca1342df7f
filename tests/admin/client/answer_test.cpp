// The answer parser alone: what it refuses.
#include <gtest/gtest.h>

#include <random>

#include "admin/client/AnswerParser.h"

namespace {

std::string parse(AnswerShape shape, const std::string& text, Answer& answer) {
    answer.text.append(text.c_str(), text.size() + 1);
    return parseAnswer(shape, 7, answer);
}

std::string parse(AnswerShape shape, const std::string& text) {
    Answer answer;
    return parse(shape, text, answer);
}

std::string result(const std::string& members) {
    return R"({"jsonrpc":"2.0","id":7,"result":{)" + members + "}}";
}

const std::string kSessions =
    result(R"("total":2,"count":2,"sessions":[{"id":"a","user":"\u00fc","time":5},{"id":"b","user":"","time":-5}])");
const std::string kCluster =
    result(R"("count":2,"realms":[{"name":"e","replicaSets":["a","b"]},{"replicaSets":["c"],"name":"w"}],)"
           R"("key":{"label":"k","time":1,"previousTime":0})");
const std::string kError = R"({"jsonrpc":"2.0","id":7,"error":{"code":1,"message":"no","data":{"name":"n"}}})";

TEST(AnswerParser, TakesFieldsInAnyOrderAndPassesOverThoseItDoesNotKnow) {
    Answer answer;
    EXPECT_EQ(parse(AnswerShape::kSessions,
                    " {\"new\":[{\"id\":1e5,\"x\":[[]]},null,true,-0.5],\"result\":{\"sessions\":[{\"time\":2147483647,"
                    "\"id\":\"\\ud83d\\ude00\",\"user\":\"\xF4\x8F\xBF\xBF\",\"extra\":{\"id\":{}}}],\"count\":1,"
                    "\"total\":9},\"id\":7,\"jsonrpc\":\"2.0\"}\r\n\t ",
                    answer),
              "");
    ASSERT_EQ(answer.sessions.size(), 1U);
    EXPECT_STREQ(answer.sessions.data()[0].first_text, "\xF0\x9F\x98\x80");
    EXPECT_EQ(answer.sessions.data()[0].time, 2147483647);
    EXPECT_EQ(answer.total, 9);

    Answer cluster;
    ASSERT_EQ(parse(AnswerShape::kCluster, kCluster, cluster), "");
    EXPECT_STREQ(cluster.realms.data()[0].replica_set_names[1], "b");
    EXPECT_STREQ(cluster.realms.data()[1].replica_set_names[0], "c");
    EXPECT_STREQ(cluster.realms.data()[1].name, "w");
}

TEST(AnswerParser, RefusesWhatIsNotExactlyAnAnswer) {
    const auto session = [](const std::string& members) {
        return result(R"("total":1,"count":1,"sessions":[{)" + members + "}]");
    };
    const auto level = [](const std::string& value) { return result("\"level\":" + value); };
    const std::string deep(100000, '[');
    struct Case {
        AnswerShape shape;
        std::string text;
    };
    const Case cases[] = {
        // not one JSON value
        {AnswerShape::kLevel, ""},
        {AnswerShape::kLevel, "   "},
        {AnswerShape::kLevel, "null"},
        {AnswerShape::kLevel, "[" + level("1") + "]"},
        {AnswerShape::kLevel, level("1") + "x"},
        {AnswerShape::kLevel, level("1") + level("1")},
        {AnswerShape::kLevel, level("1") + std::string(1, '\0') + "x"},
        {AnswerShape::kLevel, level("1") + std::string(1, '\0')},
        {AnswerShape::kLevel, "\xEF\xBB\xBF" + level("1")},
        {AnswerShape::kLevel, deep},
        {AnswerShape::kLevel, "{\"new\":" + deep},
        {AnswerShape::kLevel, result("\"level\":1,\"new\":" + deep + std::string(deep.size(), ']'))},
        // the envelope
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":8,"result":{"level":1}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":"7","result":{"level":1}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7.0,"result":{"level":1}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":null,"result":{"level":1}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","result":{"level":1}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"1.0","id":7,"result":{"level":1}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":2.0,"id":7,"result":{"level":1}})"},
        {AnswerShape::kLevel, R"({"id":7,"result":{"level":1}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"result":{"level":1},"result":{"level":1}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"id":7,"result":{"level":1}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"result":{"level":1},"error":null})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"result":{"level":1},)" + kError.substr(24)},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"result":null})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"result":[{"level":1}]})"},
        // errors
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"error":{}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"error":{"code":1,"message":"m"}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"error":{"code":1,"message":"m","data":{}}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"error":{"code":1,"message":"m","data":{"name":3}}})"},
        {AnswerShape::kLevel, R"({"jsonrpc":"2.0","id":7,"error":{"code":"1","message":"m","data":{"name":"n"}}})"},
        // numbers
        {AnswerShape::kLevel, level("2147483648")},
        {AnswerShape::kLevel, level("-2147483649")},
        {AnswerShape::kLevel, level("18446744073709551617")},
        {AnswerShape::kLevel, level("1.5")},
        {AnswerShape::kLevel, level("1e3")},
        {AnswerShape::kLevel, level("1e999999999")},
        {AnswerShape::kLevel, level(std::string(5000, '9'))},
        {AnswerShape::kLevel, level("01")},
        {AnswerShape::kLevel, level("\"1\"")},
        {AnswerShape::kLevel, level("true")},
        {AnswerShape::kLevel, level("null")},
        {AnswerShape::kLevel, level("[1]")},
        {AnswerShape::kLevel, result("")},
        {AnswerShape::kLevel, result(R"("level":1,"level":1)")},
        {AnswerShape::kCount, result(R"("count":-1)")},
        // strings
        {AnswerShape::kSessions, session(R"("id":"a\u0000b","user":"u","time":1)")},
        {AnswerShape::kSessions, session("\"id\":\"\xC0\x80\",\"user\":\"u\",\"time\":1")},
        {AnswerShape::kSessions, session("\"id\":\"\xED\xA0\x80\",\"user\":\"u\",\"time\":1")},
        {AnswerShape::kSessions, session("\"id\":\"\xF4\x90\x80\x80\",\"user\":\"u\",\"time\":1")},
        {AnswerShape::kSessions, session("\"id\":\"12345678\xC3\",\"user\":\"u\",\"time\":1")},
        {AnswerShape::kSessions, session(R"("id":"\udc00","user":"u","time":1)")},
        {AnswerShape::kSessions, session(R"("id":"\ud800x","user":"u","time":1)")},
        {AnswerShape::kSessions, session("\"id\":\"a\nb\",\"user\":\"u\",\"time\":1")},
        {AnswerShape::kLevel, result("\"level\":1,\"new\":\"\xFF\"")},
        // records
        {AnswerShape::kSessions, session(R"("id":"a","user":"u")")},
        {AnswerShape::kSessions, session(R"("id":"a","user":null,"time":1)")},
        {AnswerShape::kSessions, session(R"("id":"a","user":"u","time":1,"id":"a")")},
        {AnswerShape::kSessions, session(R"("id\u0000":"a","user":"u","time":1)")},
        {AnswerShape::kSessions, result(R"("total":1,"count":1,"sessions":["a"])")},
        {AnswerShape::kSessions, result(R"("total":1,"count":1,"sessions":[[]])")},
        {AnswerShape::kSessions, result(R"("total":1,"count":1,"sessions":{})")},
        {AnswerShape::kSessions, result(R"("total":0,"sessions":[])")},
        {AnswerShape::kCluster, result(R"("count":0,"realms":[])")},
        {AnswerShape::kCluster, result(R"("count":1,"realms":[{"name":"e","replicaSets":["a",1]}],)"
                                       R"("key":{"label":"k","time":1,"previousTime":0}})")},
        // counts that lie
        {AnswerShape::kSessions, result(R"("total":1,"count":1,"sessions":[])")},
        {AnswerShape::kSessions, result(R"("total":2147483647,"count":2147483647,"sessions":[])")},
        {AnswerShape::kSessions, result(R"("total":0,"count":-1,"sessions":[])")},
        {AnswerShape::kSessions, result(R"("total":0,"count":1,"sessions":[{"id":"a","user":"u","time":1}])")},
        {AnswerShape::kReplicaSet, result(R"("count":2,"records":[{"name":"n","time":1}])")},
        // another method's result
        {AnswerShape::kKey, kSessions},
        {AnswerShape::kSessions, kCluster},
    };
    for (const Case& one : cases) {
        EXPECT_NE(parse(one.shape, one.text), "") << one.text.substr(0, 200);
    }
    EXPECT_EQ(parse(AnswerShape::kSessions, session(R"("id":"a","user":"u","time":1)")), "");
    EXPECT_EQ(parse(AnswerShape::kLevel, level("-2147483648")), "");
}

TEST(AnswerParser, RefusesEveryPartOfAnAnswer) {
    for (const auto& [shape, text] :
         {std::pair(AnswerShape::kSessions, kSessions), std::pair(AnswerShape::kCluster, kCluster),
          std::pair(AnswerShape::kLevel, kError)}) {
        ASSERT_EQ(parse(shape, text), "");
        for (std::size_t length = 0; length < text.size(); ++length) {
            EXPECT_NE(parse(shape, text.substr(0, length)), "") << length;
            EXPECT_NE(parse(shape, text.substr(length + 1)), "") << length;
        }
    }
}

TEST(AnswerParser, SurvivesDamage) {
    std::mt19937 random(1);
    const std::string alphabet = "\"{}[],:\\0u9-e.\xC3";
    for (int round = 0; round < 20000; ++round) {
        std::string text = round % 2 == 0 ? kSessions : kCluster;
        for (auto damages = random() % 3 + 1; damages > 0; --damages) {
            text[random() % text.size()] = alphabet[random() % alphabet.size()];
        }
        Answer answer;
        if (parse(round % 2 == 0 ? AnswerShape::kSessions : AnswerShape::kCluster, text, answer).empty()) {
            EXPECT_EQ(answer.sessions.size() + answer.realms.size(), static_cast<std::size_t>(answer.count)) << text;
        }
    }
}

}  // namespace
