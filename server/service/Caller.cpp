#include "server/service/Caller.h"

#include "server/log/Text.h"

namespace dsessd {

std::string Caller::description() const {
    std::string text = credentials.user.empty() ? "nobody" : harmless(credentials.user);
    text += " from " + peer.address;
    if (!peer.certificate.empty()) {
        text += " with certificate " + harmless(peer.certificate, 1024);
    }
    return text;
}

}  // namespace dsessd
