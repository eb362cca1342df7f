/// Any bytes as a key file: it gives an identity whose parts fit, or a reason that names the file. The first byte
/// chooses whether there are a stash and a label.

#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <fstream>

#include "Require.h"
#include "admin/client/KeyFile.h"
#include "admin/client/TlsProblem.h"
#include "runtime/qel_messages.h"

using namespace olmdsess;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const mode_t before = umask(077);
    static const std::string path = scratchFolder() + "/key", stash = path + ".stash";
    if (static bool made = false; !made) {
        made = static_cast<bool>(std::ofstream(stash) << "secret\n");
    }
    const unsigned choice = size == 0 ? 0 : *data;
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(data) + 1, size == 0 ? 0 : static_cast<std::streamsize>(size - 1));
    try {
        const KeyFile file =
            loadKeyFile(path.c_str(), (choice & 1) == 0 ? nullptr : stash.c_str(), (choice & 2) == 0 ? nullptr : "me");
        REQUIRE(file.key == nullptr || X509_check_private_key(file.certificate.get(), file.key.get()) == 1);
    } catch (const TlsProblem& problem) {
        REQUIRE(problem.status == kStatusKeyFile && problem.text.find(path) != std::string::npos);
    }
    REQUIRE(ERR_peek_error() == 0);
    return static_cast<int>(before & 0);
}
