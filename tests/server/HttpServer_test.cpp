#include "server/http/HttpServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <future>

#include "server/scheduling/FairPool.h"
#include "server/scheduling/Spool.h"
#include "tests/catalogue/Support.h"

using namespace dsessd;

namespace {

std::string request(const std::string& method, const std::string& parameters = "") {
    const std::string body = R"({"jsonrpc":"2.0","id":1,"method":")" + method +
                             R"(","params":{"security":{"user":"anonymous"})" + parameters + "}}";
    return "POST /blue/services/DSessAdmin HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nConnection: "
           "close\r\n"
           "Content-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// A server on a store with a listing that no socket's buffer holds.
struct HttpServing : testing::Test {
    void start(const HttpLimits& limits) {
        const auto cluster = store->replace();
        cluster->addRealm(1, "east");
        for (int i = 0; i < 8000; ++i) {
            cluster->addSessions({{1, std::to_string(i), std::string(1000, 'm'), i}});
        }
        cluster->addReplicaSet(2, 1, "set");
        for (int i = 0; i < 200'000; ++i) {  // more than are read at once
            cluster->addMember(2, {std::to_string(i), i});
        }
        cluster->commit();
        ASSERT_EQ(::pipe(stop.data()), 0);
        Listener listener("127.0.0.1:0");
        listener.open();
        port = static_cast<std::uint16_t>(std::stoi(listener.address().substr(10)));
        thread = std::thread([this, limits, moved = std::move(listener)]() mutable {
            HttpServer(service, log, metrics, {"blue"}, nullptr, limits)
                .run(
                    std::move(moved), stop[0], [] {}, [] {}, [] {});
        });
    }
    void end() {
        ::close(stop[1]);
        thread.join();
    }

    /// A client that has sent something.
    QelFileDescriptor client(const std::string& sent = "") const {
        QelFileDescriptor socket(::socket(AF_INET, SOCK_STREAM, 0));
        const int room = 4096;
        ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::send(socket.get(), sent.data(), sent.size(), MSG_NOSIGNAL), static_cast<ssize_t>(sent.size()));
        return socket;
    }
    static std::string firstOf(const QelFileDescriptor& from, std::size_t size = 12) {
        std::string bytes(size, '\0');
        bytes.resize(std::max<ssize_t>(0, ::recv(from.get(), bytes.data(), bytes.size(), MSG_WAITALL)));
        return bytes;
    }
    bool isServed() const { return firstOf(client(request("trace.get"))) == "HTTP/1.1 200"; }

    const std::string listing = request("session.list", R"(,"realm":"east","selector":"user","value":"*","max":-1)");
    const TempFolder folder;
    const std::unique_ptr<Store> store = Store::open(folder / "cluster.db", Store::IfMissing::kCreate);
    StorePool stores{folder / "cluster.db"};
    Authenticator authenticator;
    Log log{STDERR_FILENO};
    Metrics metrics{log};
    Service service{stores, authenticator, log, metrics, Anonymous::kRead};
    std::array<int, 2> stop{-1, -1};
    std::uint16_t port = 0;
    std::thread thread;
};

TEST_F(HttpServing, LetsWhoHasWaitedLongestMakeRoomAndEndsWhoeverIsInTheMiddleOfWhat) {
    start({.connections = 8, .drain = std::chrono::milliseconds(300)});
    std::vector<QelFileDescriptor> crowd;
    for (int i = 0; i < 9; ++i) {
        crowd.push_back(client(i % 2 == 0 ? "" : "POST "));
    }
    EXPECT_EQ(firstOf(crowd[0]), "");
    EXPECT_TRUE(isServed());
    for (int i = 0; i < 12; ++i) {
        crowd.push_back(client(listing));
    }
    while (!isServed()) {  // until their listings are made, it is the server that is waited for
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const auto begun = std::chrono::steady_clock::now();
    end();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
}

TEST_F(HttpServing, GoesOnInALaneWithWhatIsNotDoneAtOnce) {
    start({});
    const std::string get = request("replicaSet.get", R"(,"replicaSet":"set")");
    EXPECT_NE(firstOf(client(get), 500).find(R"("count":200000)"), std::string::npos);
    end();
}

TEST(HealthOfTheStore, IsLostWhenNoAnswerComesInTime) {
    using State = Health::State;
    Health health;
    EXPECT_EQ(health.state(), State::kNoStore) << "nobody has looked";
    health.storeIs(State::kOk);
    health.storeAsked(std::chrono::seconds(60));
    EXPECT_EQ(health.state(), State::kOk);
    health.storeAsked(std::chrono::seconds(-1));
    EXPECT_EQ(health.state(), State::kNoStore);
    health.storeMayRest();
    EXPECT_EQ(health.state(), State::kOk);
}

TEST(Turns, AreTakenByPeersWhoWaitNoLongerThanTheyMay) {
    std::promise<void> busy;
    std::promise<void> begin;
    std::string order;
    std::promise<void> end;
    FairPool pool(1, 1);
    pool.post("greedy", [&] {
        busy.set_value();
        begin.get_future().wait();
    });
    busy.get_future().wait();
    const auto before = FairPool::Clock::now();
    pool.post("patient", [&] { order += 'p'; });
    EXPECT_FALSE(pool.takeBack(before));
    pool.takeBack(FairPool::Clock::now() + std::chrono::seconds(1))();
    for (int i = 0; i < 5; ++i) {
        pool.post("greedy", [&] { order += 'g'; });
    }
    pool.post("modest", [&] { order += 'm'; });
    pool.post("greedy", [&] { end.set_value(); });
    begin.set_value();
    end.get_future().wait();
    EXPECT_EQ(order, "pgmgggg");
}

TEST(Spooling, KeepsOrderThroughMemoryAndFile) {
    int wakes = 0;
    Spool spool([&] { ++wakes; });
    std::string piece, put, got;
    EXPECT_EQ(spool.take(piece), Spool::Next::kLater);
    for (char c = 'a'; c <= 'z'; ++c) {
        put += std::string(50'000, c);
        spool.append(std::string(50'000, c));
    }
    spool.end(true);
    while (spool.take(piece) == Spool::Next::kPiece) {
        got += piece;
    }
    EXPECT_TRUE(got == put && wakes == 1);
    EXPECT_EQ(spool.take(piece), Spool::Next::kEnd);
}

}  // namespace
