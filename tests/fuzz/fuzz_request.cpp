/// Any bytes as a request to the server: the answer is whole and sound, and a refusal has changed nothing.

#include <crypt.h>
#include <fcntl.h>

#include <sstream>

#include "Require.h"
#include "server/service/Json.h"
#include "server/service/Service.h"
#include "server/store/Loader.h"

// Stands in for the library's, which is slow on purpose.
extern "C" char* crypt_r(const char* phrase, const char* /*setting*/, crypt_data* memory) noexcept {
    std::snprintf(memory->output, sizeof memory->output, "$y$%s", phrase);
    return memory->output;
}

namespace {

struct Server {
    const std::string path = scratchFolder() + "/cluster.db";
    const std::unique_ptr<dsessd::Store> store = dsessd::Store::open(path, dsessd::Store::IfMissing::kCreate);
    dsessd::StorePool pool{path};
    dsessd::Authenticator authenticator;
    dsessd::Log log{open("/dev/null", O_WRONLY)};
    dsessd::Metrics metrics{log};
    dsessd::Service service{pool, authenticator, log, metrics, dsessd::Anonymous::kRead};

    Server() {
        std::istringstream cluster(R"({"keys":[{"label":"k","time":9}],"realms":[{"name":"east","replicaSets":[)"
                                   R"({"name":"web","members":[{"name":"n","time":1}]}],"sessions":[)"
                                   R"({"id":"s","user":"mallory","time":2},{"id":"t","user":"m","time":3}]}]})");
        dsessd::loadCluster(cluster, *store, 9, [](const auto&...) {});
        store->putAdministrator({"root", "$y$SECRET", dsessd::Role::kChange});
        log.setLevel(dsessd::Log::kMaxLevel);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Server server;
    const std::string label = server.store->cluster().key.label;
    dsessd::Call call({data, data + size}, {"::1", "[::1]:1", "/CN=peer"},
                      std::make_shared<dsessd::RequestDeadlines>());
    for (auto lane = dsessd::Lane::kAtOnce; lane != dsessd::Lane::kDone;) {
        lane = server.service.advance(call, lane);
    }
    dsessd::Answer& answer = call.answer;
    while (answer.rest != nullptr && !answer.rest->done()) {
        answer.text += answer.rest->next();
    }
    dsessd::JsonMemory memory;
    const auto document = dsessd::parseStrictly(answer.text, memory);
    REQUIRE(document && document->is_object());
    const bool refused = document->get_object().contains("error");
    REQUIRE(refused != document->get_object().contains("result") && (refused || answer.httpStatus == 200));
    REQUIRE(!refused || server.store->cluster().key.label == label);
    return 0;
}
