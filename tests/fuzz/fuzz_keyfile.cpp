/// Any bytes as a key file: it gives somebody to trust and an identity whose parts fit, or a reason that names the
/// file. The first byte chooses whether there are a stash and a label.

#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <fstream>

#include "Require.h"
#include "admin/client/base/Failure.h"
#include "admin/client/tls/KeyFile.h"
#include "catalogue/qel_messages.h"

using namespace olmdsess;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    umask(077);
    static const std::string path = scratchFolder() + "/key", stash = path + ".stash";
    std::ofstream(stash) << "secret\n";
    const std::string input = size == 0 ? "0" : std::string(reinterpret_cast<const char*>(data), size);
    std::ofstream(path, std::ios::binary) << input.substr(1);
    const bool stashed = (input[0] & 1) != 0, labelled = (input[0] & 2) != 0;
    try {
        const KeyFile file = loadKeyFile(path.c_str(), stashed ? stash.c_str() : nullptr, labelled ? "me" : nullptr);
        REQUIRE(!file.trusted.empty());
        REQUIRE(file.key == nullptr || X509_check_private_key(file.certificate.get(), file.key.get()) == 1);
    } catch (const Failure& failure) {
        REQUIRE(failure.status == kStatusKeyFile && failure.cause.find(path) != std::string::npos);
    }
    REQUIRE(ERR_peek_error() == 0);
    return 0;
}
