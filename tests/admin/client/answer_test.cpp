// The reader of answers alone: what it takes and what it refuses, however the bytes are cut. And the reader of URLs.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "admin/client/answer/AnswerReader.h"
#include "admin/client/base/Failure.h"
#include "admin/client/request/Location.h"

using namespace olmdsess;

namespace {

std::string shown(Answer& answer) {
    std::ostringstream all;
    const auto text = [](const char* it) { return it == nullptr ? "~" : it; };
    all << text(answer.clusterId) << " " << text(answer.errorName) << " " << text(answer.errorMessage) << " "
        << text(answer.key.key_label) << " " << answer.key.key_time << "/" << answer.key.second_time << " "
        << answer.total << "/" << answer.count << "/" << answer.level;
    for (const auto& [name, count, names] : answer.realms) {
        all << ", " << name << ":";
        std::for_each(names, names + count, [&all](const char* replicaSet) { all << " " << replicaSet; });
    }
    for (const auto& [name, time] : answer.members) {
        all << ", " << name << " " << time;
    }
    for (const auto& [user, id, time] : answer.sessions) {
        all << ", " << user << " " << id << " " << time;
    }
    return all.str();
}

/// What the answer to request 7 says, or "! " and why it is refused. The first piece is of so many bytes, and the
/// second the rest, or as long as the first.
std::string read(AnswerShape shape, std::string_view text, std::size_t first, bool alike) {
    AnswerReader reader(shape, 7);
    try {
        reader.read(text.substr(0, first));
        for (std::size_t at = first; at < text.size(); at += alike ? first : text.size()) {
            reader.read(text.substr(at, alike ? first : text.size()));
        }
        reader.finish();
    } catch (const Failure& failure) {
        return "! " + failure.cause;
    }
    EXPECT_EQ(reader.head(), text.substr(0, AnswerReader::kHeadBytes));
    return shown(reader.answer());
}

/// The same, having tried every cut of a text that is not long.
std::string read(AnswerShape shape, std::string_view text) {
    const std::string whole = read(shape, text, text.size(), false);
    for (std::size_t first = 0; first < std::min<std::size_t>(text.size(), 400); ++first) {
        for (const std::string& cut : {read(shape, text, first, false), read(shape, text, first / 40 + 1, true)}) {
            // How far a refused one came may differ.
            EXPECT_TRUE(cut == whole || (cut[0] == '!' && whole[0] == '!')) << text << " " << first << " " << cut;
        }
    }
    return whole;
}

std::string result(const std::string& members) {
    return R"({"jsonrpc":"2.0","id":7,"result":{)" + members + "}}";
}

enum Which { kSessions, kCluster, kError, kLevel, kCount, kReplicaSet, kKey };

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
    {AnswerShape::kKey, result(R"("key":{"label":"k","time":1,"previousTime":2147483647,"previousTimes":0})")},
};

TEST(AnswerReader, TakesFieldsInAnyOrderAndPassesOverThoseItDoesNotKnow) {
    const std::string cluster(64, 'c');
    const std::pair<AnswerShape, std::pair<std::string, std::string>> table[] = {
        {AnswerShape::kSessions,
         {R"( {"new":[{"id":1e5,"x":[[]]},null,true,-0.5],"result":{"sessions":[{"time":2147483647,)"
          R"("id":"\ud83d\ude00","user":"","extra":{"id":{}}}],"count":1,"total":9},"id":7,"jsonrpc":"2.0"} )",
          "~ ~ ~ ~ 0/0 9/1/0,  😀 2147483647"}},
        {AnswerShape::kCluster, {kWhole[kCluster].second, "~ ~ ~ k 1/0 0/2/0, e: a b, w: c"}},
        {AnswerShape::kLevel, {kWhole[kError].second, "~ n no ~ 0/0 0/0/0"}},
        {AnswerShape::kReplicaSet, {kWhole[kReplicaSet].second, "~ ~ ~ ~ 0/0 0/1/0, n 1"}},
        {AnswerShape::kKey, {kWhole[kKey].second, "~ ~ ~ k 1/2147483647 0/0/0"}},
        {AnswerShape::kLevel,
         {R"({"jsonrpc":"2.0","id":7,"n":1,"n":-0.0e-400,"\u006e":123456789012345678901234567890,"clusterId":")" +
              cluster + R"(","result":{"level":3,"levels":18446744073709551615,"leve":1e400,"":"\"\ud83d\ude00"}})",
          cluster + " ~ ~ ~ 0/0 0/0/3"}},
        {AnswerShape::kCount,
         {R"({"jsonrpc":"2.0","id":7,"new":)" + std::string(63, '[') + std::string(63, ']') +
              R"(,"r\u0065sult":{"count":5}})",
          "~ ~ ~ ~ 0/0 0/5/0"}},
    };
    for (const auto& [shape, texts] : table) {
        EXPECT_EQ(read(shape, texts.first), texts.second);
    }
}

TEST(AnswerReader, KeepsTextsOfAnyLengthWhereverTheirEscapesStand) {
    for (const std::size_t length : {0, 1, 15, 16, 17, 5000, 600'000}) {
        const std::string plain(length, 'x');
        std::string text = R"("total":3,"count":3,"sessions":[)";
        std::string said = "~ ~ ~ ~ 0/0 3/3/0";
        for (const char* comma : {"", ",", ","}) {
            text.append(comma).append(R"({"user":")").append(plain);
            text.append(R"(\"\\\/\b\f\n\r\t\u00e4\u20AC\ud83d\ude00ä)").append(plain);
            text.append(R"(","id":")").append(plain).append(R"(","time":1})");
            said.append(", ").append(plain).append("\"\\/\b\f\n\r\tä€😀ä").append(plain).append(" ");
            said.append(plain).append(" 1");
        }
        for (const std::size_t piece : {17, 262'144}) {
            EXPECT_TRUE(read(AnswerShape::kSessions, result(text + "]"), piece, true) == said) << length;
        }
    }
    for (std::size_t length = 900; length < 1100; ++length) {  // some fill what there is room for
        const std::string id(length, 'x');
        const std::string text = R"("total":1,"count":1,"sessions":[{"user":"","time":1,"id":")" + id + "\"}]";
        EXPECT_EQ(read(AnswerShape::kSessions, result(text), 4096, false), "~ ~ ~ ~ 0/0 1/1/0,  " + id + " 1");
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
        {kLevel, level, {"", " ", "null", "[" + level + "]", level + "x", level + nul, level + level, "{\"new\":" + deep}},
        {kLevel, R"("jsonrpc":"2.0",)", {"", R"("jsonrpc":"1.0",)", R"("jsonrpc":"2.0","jsonrpc":"2.0",)"}},
        {kLevel, R"("id":7,)", {"", R"("id":8,)", R"("id":7,"clusterId":"a","clusterId":"a",)", R"("id":7 "new":1,)", R"("id":7,"\u0000":1,)",
                         R"("id":7,"n":{"\u0000n":1},)", "\"id\":7,\"n\xE4\":1,",
                         R"("id":7,"n":{"long enough to come in parts\u0000":1},)", R"("id":7,"n":"\u0000",)",
                         R"("id":7,"clusterId":")" + std::string(65, 'c') + "\","}},
        {kLevel, R"({"level":-2147483648})", {"null", "{}", R"({"level":1},"error":null)", R"({"level":1},"result":{"level":1})",
                 R"({"level":1},"error":{"code":1,"message":"m","data":{"name":"n"}})", "{\"level\":1,\"new\":\"\xFF\"}",
                 "{\"level\":1,\"new\":" + std::string(63, '[') + std::string(63, ']') + "}"}},
        {kLevel, "-2147483648", {"2147483648", "9223372036854775808", "1.5", "\"1\"", "[1]", "true"}},
        {kError, R"(,"data":{"name":"n"})", {"", R"(,"data":{})", R"(,"data":{"name":3})"}},
        {kError, R"(,"error":{"code":1,"message":"no","data":{"name":"n"}})", {""}},
        {kSessions, R"("a")", {"null", R"("a\u0000b")", "\"\xED\xA0\x80\""}},
        {kSessions, R"(,"time":5)", {"", R"(,"time":5,"new":0,"time":5)"}},
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
        ASSERT_NE(read(kWhole[answer].first, kWhole[answer].second)[0], '!');
        for (const std::string& replacement : replacements) {
            std::string text = kWhole[answer].second;
            ASSERT_NE(text.find(part), std::string::npos) << part;
            text.replace(text.find(part), part.size(), replacement);
            EXPECT_EQ(read(kWhole[answer].first, text)[0], '!') << text.substr(0, 200);
        }
    }
}

TEST(AnswerReader, RefusesAnAnswerThatEndsEarly) {
    for (const auto& [shape, text] : kWhole) {
        for (std::size_t size = 0; size < text.size(); ++size) {
            EXPECT_TRUE(
                read(shape, text.substr(0, size), size / 2, false).starts_with("! answer not understood: it is "))
                << size << text;
        }
    }
}

TEST(AnswerReader, RefusesAListingThatIsTooLongAsSoonAsThatShows) {
    const std::string few = R"([{"user":"u","id":"i","time":1},)";
    const std::string large = few + R"({"user":"u","time":1,"id":")" + std::string(5000, 'x') + "\"},";
    const std::pair<std::string, std::string> table[] = {
        {R"("total":900,"count":100,"sessions":)" + few, ""},
        {R"("total":900,"count":101,"sessions":[)", "the listing has 101 sessions, and there is room for 100 in 0 MiB"},
        {R"("total":900,"count":100,"sessions":)" + large,
         "the first 2 sessions take too much, and there is room for 100 in 0 MiB"},
        {R"("sessions":)" + large, "the first 2 sessions take too much, and there is room for 100 in 0 MiB"},
    };
    for (const auto& [begun, cause] : table) {
        AnswerReader reader(AnswerShape::kSessions, 7, 100 * AnswerReader::kSessionBytes);
        Failure failure{};
        try {
            reader.read(R"({"jsonrpc":"2.0","id":7,"result":{)" + begun);
        } catch (const Failure& thrown) {
            failure = thrown;
        }
        EXPECT_EQ(failure.status, cause.empty() ? 0 : kStatusListingTooLong);
        EXPECT_EQ(failure.cause, cause);
    }
}

TEST(Location, IsWhatAUrlSaysOrNone) {
    const std::pair<const char*, const char*> table[] = {
        {"http://a", "0 a a 80 /"},
        {"HTTPS://a?x", "1 a a 443 /?x"},
        {"http://[::1]:9/b#c", "0 [::1]:9 ::1 9 /b"},
        {"http://a:65535/", "0 a:65535 a 65535 /"},
    };
    for (const auto& [url, parts] : table) {
        const auto [secure, authority, host, port, path] = parseLocation(url).value();
        EXPECT_EQ(std::to_string(secure).append(" " + authority + " " + host + " " + port + " " + path), parts);
    }
    for (const char* bad :
         {"a", "ftp://a", "http://", "http://:1", "http://a:", "http://a:65536", "http://a:000080", "http://a:1x",
          "http://a b", "http://a\x7F", "http://a/\n", "http://b@a/", "http://[a", "http://a]"}) {
        EXPECT_FALSE(parseLocation(bad)) << bad;
    }
}

}  // namespace
