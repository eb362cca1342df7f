/// Any bytes as requests of HTTP: however they are cut, the same bodies are found in them, until one is refused.

#include "Require.h"
#include "server/http/HttpRequest.h"

using namespace dsessd;

namespace {

/// Takes one request off the front of what is waiting, to which more of the bytes comes in pieces. False: there is
/// none.
bool takeOne(HttpRequest& request, std::string& waiting, std::string_view& bytes, std::size_t piece) {
    for (;;) {
        const std::size_t used = request.take(waiting);
        REQUIRE(used <= waiting.size());
        waiting.erase(0, used);
        if (request.done() || request.refusal() != 0) {
            return request.refusal() == 0;
        }
        if (used == 0 || waiting.empty()) {
            if (bytes.empty()) {
                return false;
            }
            REQUIRE(waiting.size() < HeadCheck::kMaxHeadBytes);
            const std::size_t room = std::min(piece, HeadCheck::kMaxHeadBytes - waiting.size());
            waiting += bytes.substr(0, room);
            bytes.remove_prefix(std::min(room, bytes.size()));
        }
    }
}

std::vector<SecretBuffer> bodiesIn(std::string_view bytes, std::size_t piece) {
    static const std::vector<std::string> paths{"/p"};
    std::vector<SecretBuffer> bodies;
    std::string waiting;
    for (bool more = true; more;) {
        HttpRequest request(paths);
        if (!takeOne(request, waiting, bytes, piece)) {
            break;
        }
        more = request.keepAlive();
        bodies.push_back(request.takeBody());
    }
    return bodies;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const auto whole = bodiesIn(bytes, HeadCheck::kMaxHeadBytes);
    for (const std::size_t piece : {1, 2, 7}) {
        const auto cut = bodiesIn(bytes, piece);
        REQUIRE(std::equal(cut.begin(), cut.begin() + std::min(cut.size(), whole.size()), whole.begin()));
    }
    return 0;
}
