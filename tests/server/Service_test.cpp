#include "server/Service.h"

#include <gmock/gmock.h>
#include <rapidjson/document.h>
#include <unistd.h>

#include <fstream>

#include "server/Password.h"
#include "tests/server/Support.h"

using namespace dsessd;
using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace {

constexpr char kAnonymous[] = R"("user":"anonymous","password":null,"loginId":null)";
constexpr char kRoot[] = R"("user":"root","password":"SECRET","loginId":"qk=1")";
constexpr char kAuditor[] = R"("user":"auditor","password":"LOOK","loginId":"qk=2")";
constexpr char kWrong[] = R"("user":"root","password":"GUESS","loginId":"qk=3")";

class ServiceTest : public testing::Test {
  protected:
    ServiceTest()
        : m_stores(m_file.path()),
          m_logFile(std::tmpfile()),
          m_log(fileno(m_logFile.get())),
          m_open(m_stores, m_authenticator, m_log, Anonymous::kRead),
          m_closed(m_stores, m_authenticator, m_log, Anonymous::kNone) {
        m_file.load(kSmallCluster);
        static const std::string kSecretHash = hashPassword("SECRET");
        static const std::string kLookHash = hashPassword("LOOK");
        m_file.open()->putAdministrator({"root", kSecretHash, Role::kChange});
        m_file.open()->putAdministrator({"auditor", kLookHash, Role::kRead});
    }

    /// The whole answer to a text, `STATUS BODY` when the status is not 200.
    std::string answerTo(std::string_view request, Service& service) {
        SecretString text(request.size());
        text.append(request);
        Answer answer = service.handle(text, {"192.0.2.7:4711", "/CN=desk"});
        std::string body = answer.text;
        while (answer.rest && !answer.rest->done()) {
            body += answer.rest->next();
        }
        return (answer.httpStatus == 200 ? "" : std::to_string(answer.httpStatus) + " ") + body;
    }
    std::string call(const std::string& method, const std::string& who, const std::string& parameters = "") {
        return answerTo(requestFor(method, who, parameters), m_open);
    }
    static std::string requestFor(const std::string& method, const std::string& who, const std::string& parameters) {
        return R"({"jsonrpc":"2.0","id":7,"method":")" + method + R"(","params":{"security":{)" + who + "}" +
               (parameters.empty() ? "" : ",") + parameters + "}}";
    }
    std::string logged() {
        std::string text(100000, '\0');
        text.resize(static_cast<std::size_t>(pread(fileno(m_logFile.get()), text.data(), text.size(), 0)));
        return text;
    }

    struct CloseFile {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    DataFile m_file;
    StorePool m_stores;
    Authenticator m_authenticator;
    std::unique_ptr<std::FILE, CloseFile> m_logFile;
    Log m_log;
    Service m_open;
    Service m_closed;
};

std::string result(const std::string& json) {
    return R"({"jsonrpc":"2.0","id":7,"result":)" + json + "}";
}

/// The name of an error, or what else it was.
std::string errorOf(const std::string& answer) {
    const std::string before = R"("data":{"name":")";
    const auto at = answer.find(before);
    return at == std::string::npos
               ? answer
               : answer.substr(at + before.size(), answer.find('"', at + before.size()) - at - before.size());
}

}  // namespace

TEST_F(ServiceTest, AnswersEveryMethod) {
    const struct {
        const char* method;
        const char* parameters;
        const char* answer;
    } cases[] = {
        {"cluster.get", "",
         R"({"count":2,"realms":[{"name":"east","replicaSets":["web","db"]},{"name":"empty","replicaSets":[]}],"key":{"label":"new","time":200,"previousTime":100}})"},
        {"replicaSet.get", R"("replicaSet":"web")",
         R"({"count":2,"records":[{"name":"web-1","time":11},{"name":"web-2","time":12}]})"},
        {"replicaSet.get", R"("replicaSet":"db")", R"({"count":0,"records":[]})"},
        {"session.list", R"("realm":"east","selector":"user","value":"*","max":2,"unknown":1)",
         R"({"total":4,"count":2,"sessions":[{"id":"s1","user":"josé","time":10},{"id":"s2","user":"mallory","time":20}]})"},
        {"session.list", R"("realm":"east","selector":"session","value":"s[34]","max":-1)",
         R"({"total":0,"count":0,"sessions":[]})"},
        {"session.list", R"("realm":"empty","selector":"user","value":"*","max":0)",
         R"({"total":0,"count":0,"sessions":[]})"},
        {"session.refresh", R"("realm":"east","selector":"session","value":"s3")", R"({"count":1})"},
        {"session.refresh", R"("realm":"east","selector":"user","value":"mallory")", R"({"count":3})"},
        {"session.terminate", R"("realm":"east","selector":"session","value":"s2")", R"({"count":1})"},
        {"session.terminate", R"("realm":"east","selector":"user","value":"mallory")", R"({"count":2})"},
        {"trace.get", "", R"({"level":1})"},
        {"trace.set", R"("level":9)", R"({"level":9})"},
        {"trace.get", "", R"({"level":9})"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(call(c.method, kRoot, c.parameters), result(c.answer)) << c.method;
    }
    const Seconds before = presentTime();
    EXPECT_THAT(
        call("key.change", kRoot),
        MatchesRegex(
            R"(.*"result":\{"key":\{"label":"key-[-0-9]{11}[0-9a-f]{16}","time":[0-9]+,"previousTime":200\}\}\})"));
    EXPECT_GE(m_file.open()->cluster().key.time, before);
}

TEST_F(ServiceTest, LetsEachDoWhatHeMay) {
    const char* const sessions =
        R"("realm":"east","selector":"user","value":"josé","max":1,"level":1,"replicaSet":"web")";
    const struct {
        const char* method;
        bool changes;
    } methods[] = {{"cluster.get", false}, {"replicaSet.get", false}, {"session.list", false},
                   {"trace.get", false},   {"session.refresh", true}, {"session.terminate", true},
                   {"key.change", true},   {"trace.set", true}};
    for (const auto& [method, changes] : methods) {
        const auto outcome = [&, name = method](const char* who, Service& service) {
            const std::string answer = answerTo(requestFor(name, who, sessions), service);
            return answer.find("\"result\"") != std::string::npos ? "done" : errorOf(answer);
        };
        SCOPED_TRACE(method);
        EXPECT_EQ(outcome(kAnonymous, m_closed), "not-permitted");
        EXPECT_EQ(outcome(kAnonymous, m_open), changes ? "not-permitted" : "done");
        EXPECT_EQ(outcome(R"("user":"anonymous","password":"")", m_open), changes ? "not-permitted" : "done");
        EXPECT_EQ(outcome(kAuditor, m_closed), changes ? "not-permitted" : "done");
        EXPECT_EQ(outcome(kWrong, m_open), "identity-refused");
        EXPECT_EQ(outcome(R"("user":"anonymous","password":"x")", m_open), "identity-refused");
        EXPECT_EQ(outcome(R"("user":null,"password":null)", m_open), "identity-refused");
        EXPECT_EQ(outcome(kRoot, m_closed), "done");
        EXPECT_EQ(outcome(R"("user":"root","password":null,"loginId":"qk=1")", m_open), "identity-refused")
            << "a login identifier stands for no password";
    }
}

TEST_F(ServiceTest, RefusesInTheDocumentedOrderAndChangesNothing) {
    const std::string east = R"("realm":"east","selector":"user",)";
    const struct {
        const char* method;
        const char* who;
        std::string parameters;
        const char* error;
    } cases[] = {
        {"no.such", kWrong, "", "invalid-request"},
        {"Cluster.get", kRoot, "", "invalid-request"},
        {"session.list", kWrong, east + R"("value":"*")", "invalid-request"},
        {"session.list", kRoot, east + R"("value":"*","max":"1")", "invalid-request"},
        {"session.list", kRoot, east + R"("value":"*","max":1.0)", "invalid-request"},
        {"session.list", kRoot, east + R"("value":"*","max":2147483648)", "invalid-request"},
        {"session.list", kRoot, east + R"("value":null,"max":1)", "invalid-request"},
        {"trace.set", kRoot, R"("level":true)", "invalid-request"},
        {"replicaSet.get", kRoot, "", "invalid-request"},
        {"cluster.get", R"("user":5)", "", "invalid-request"},
        {"trace.set", kWrong, R"("level":10)", "identity-refused"},
        {"trace.set", kAuditor, R"("level":10)", "not-permitted"},
        {"trace.set", kRoot, R"("level":10)", "invalid-value"},
        {"trace.set", kRoot, R"("level":-1)", "invalid-value"},
        {"session.list", kRoot, east + R"("value":"*","max":-2)", "invalid-value"},
        {"session.list", kRoot, east + R"("max":1,"value":")" + std::string(4097, '*') + "\"", "invalid-value"},
        {"session.list", kRoot, R"("realm":"west","selector":"group","value":"*","max":1)", "invalid-value"},
        {"session.list", kRoot, R"("realm":"EAST","selector":"user","value":"*","max":1)", "unknown-realm"},
        {"session.terminate", kRoot, R"("realm":"west","selector":"user","value":"mallory")", "unknown-realm"},
        {"session.refresh", kRoot, R"("realm":"west","selector":"session","value":"s1")", "unknown-realm"},
        {"session.terminate", kRoot, east + R"("value":"*")", "no-matching-session"},
        {"session.refresh", kRoot, R"("realm":"empty","selector":"session","value":"s1")", "no-matching-session"},
        {"replicaSet.get", kRoot, R"("replicaSet":"east")", "unknown-replica-set"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(errorOf(call(c.method, c.who, c.parameters)), c.error)
            << c.method << " " << c.parameters.substr(0, 100);
    }
    EXPECT_EQ(call("session.list", kRoot, R"("realm":"east","selector":"user","value":"*","max":0)"),
              result(R"({"total":4,"count":0,"sessions":[]})"));
    EXPECT_EQ(call("trace.get", kRoot), result(R"({"level":1})"));
}

TEST_F(ServiceTest, TellsApartWhatIsNoRequest) {
    const std::string good = requestFor("cluster.get", kAnonymous, "");
    const auto with = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        return text.replace(text.find(from), from.size(), to);
    };
    const struct {
        std::string text;
        int code;
        bool isRequest;
    } cases[] = {
        {"", -32700, false},
        {"{", -32700, false},
        {good + "x", -32700, false},
        {"\xEF\xBB\xBF" + good, -32700, false},
        {with("\"id\":7", "\"id\":7,\"id\":7"), -32700, false},
        {with("\"user\"", "\"user\":\"root\",\"user\""), -32700, false},
        {with("anonymous", "a\\u0000b"), -32700, false},
        {with("anonymous", "a\xC0\xAF"), -32700, false},
        {with("anonymous", "a\\ud800"), -32700, false},
        {with("anonymous", "a\\udc00"), -32700, false},
        {with("\"params\":", "\"x\":" + std::string(17, '[') + std::string(17, ']') + ",\"params\":"), -32700, false},
        {std::string(60000, '['), -32700, false},
        {"[" + good + "]", -32600, false},
        {"7", -32600, false},
        {with("2.0", "1.0"), -32600, false},
        {with("\"id\":7,", ""), -32600, false},
        {with("\"id\":7", "\"id\":null"), -32600, false},
        {with("\"id\":7", "\"id\":\"7\""), -32600, false},
        {with("\"id\":7", "\"id\":7.5"), -32600, false},
        {with("\"cluster.get\"", "1"), -32600, false},
        {with("cluster.get", "cluster.put"), -32601, true},
        {with("\"params\"", "\"parameters\""), -32602, true},
        {with("\"security\"", "\"insecurity\""), -32602, true},
    };
    for (const auto& c : cases) {
        EXPECT_THAT(
            answerTo(c.text, m_open),
            AllOf(HasSubstr("\"code\":" + std::to_string(c.code) + ","), HasSubstr("invalid-request"),
                  HasSubstr(c.isRequest ? "\"id\":7" : "\"id\":null"), testing::StartsWith(c.isRequest ? "{" : "400 ")))
            << c.text.substr(0, 120);
    }
    for (const char* id : {"0", "-1", "18446744073709551615", "-9223372036854775808"}) {
        EXPECT_THAT(answerTo(with("\"id\":7", std::string("\"id\":") + id), m_open),
                    HasSubstr(std::string("\"id\":") + id + ",\"result\""));
    }
}

TEST_F(ServiceTest, SendsALongListingInPieces) {
    std::string json = R"({"realms":[{"name":"east","sessions":[)";
    for (int i = 0; i < 5000; ++i) {
        json += (i == 0 ? "" : ",") + std::string(R"({"id":")") + std::to_string(10000 + i) +
                R"(","user":"\u0007\"%","time":1})";
    }
    m_file.load(json + "]}]}");
    const std::string answer =
        call("session.list", kRoot, R"("realm":"east","selector":"user","value":"*","max":4999)");
    rapidjson::Document document;
    ASSERT_FALSE(document.Parse(answer.c_str()).HasParseError());
    EXPECT_EQ(document["result"]["total"].GetInt(), 5000);
    EXPECT_EQ(document["result"]["count"].GetInt(), 4999);
    ASSERT_EQ(document["result"]["sessions"].Size(), 4999U);
    EXPECT_STREQ(document["result"]["sessions"][4998]["id"].GetString(), "14998");
    EXPECT_STREQ(document["result"]["sessions"][4998]["user"].GetString(), "\a\"%");
}

TEST_F(ServiceTest, LogsAsMuchAsTheTraceLevelSaysAndNeverAPassword) {
    const std::string refresh = R"("realm":"east","selector":"user","value":"mallory\nforged")";
    const auto logAt = [&](int level) {
        m_log.setLevel(level);
        EXPECT_EQ(ftruncate(fileno(m_logFile.get()), 0), 0);
        lseek(fileno(m_logFile.get()), 0, SEEK_SET);
        call("session.refresh", kRoot, R"("realm":"east","selector":"session","value":"s1")");
        call("session.refresh", kRoot, refresh);
        call("cluster.get", kWrong);
        return logged();
    };
    EXPECT_EQ(logAt(0), "");
    EXPECT_THAT(logAt(1),
                AllOf(HasSubstr("audit changed: refreshed 1 session of realm east, session s1, by root from "
                                "192.0.2.7:4711 with certificate /CN=desk\n"),
                      HasSubstr("audit identity refused: root from 192.0.2.7:4711"), Not(HasSubstr(" request "))));
    EXPECT_THAT(logAt(2),
                AllOf(HasSubstr("request session.refresh by root from 192.0.2.7:4711 with certificate /CN=desk: "
                                "no-matching-session, "),
                      HasSubstr("request cluster.get by root"), Not(HasSubstr("mallory"))));
    const std::string all = logAt(9);
    EXPECT_THAT(all, HasSubstr("detail session.refresh with realm east, user mallory\\x0aforged\n"));
    for (const char* secret : {"SECRET", "GUESS", "qk="}) {
        EXPECT_THAT(all, Not(HasSubstr(secret)));
    }
    call("trace.set", kRoot, R"("level":0)");
    EXPECT_THAT(logged(), HasSubstr("notice changed: trace level is 0, by root"));
    EXPECT_EQ(logAt(0), "");
}

TEST_F(ServiceTest, AnswersAFailureOfTheFileAndLogsItsCause) {
    call("trace.get", kRoot);
    Database(m_file.path(), SQLITE_OPEN_READWRITE).execute("DROP TABLE keys");
    EXPECT_THAT(call("key.change", kRoot), HasSubstr(R"("code":-32603)"));
    EXPECT_EQ(errorOf(call("cluster.get", kRoot)), "server-failure");
    EXPECT_THAT(logged(), HasSubstr("failure the data file failed: no such table"));
}
