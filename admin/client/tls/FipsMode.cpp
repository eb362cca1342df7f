#include "admin/client/tls/FipsMode.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include "admin/client/base/Failure.h"
#include "catalogue/qel_messages.h"
#include "runtime/openssl_ptr.h"

namespace olmdsess {

namespace {

[[noreturn]] void fail() {
    const char* reason = ERR_reason_error_string(ERR_peek_error());
    ERR_clear_error();
    throw Failure{kStatusNoFips, std::string("FIPS mode is asked for, but the provider cannot be used: ") +
                                     (reason == nullptr ? "it offers no approved algorithm" : reason)};
}

}  // namespace

FipsMode::FipsMode() : m_provider(OSSL_PROVIDER_try_load(nullptr, "fips", 1)) {
    if (m_provider == nullptr || OSSL_PROVIDER_self_test(m_provider.get()) != 1 ||
        DigestPtr(EVP_MD_fetch(nullptr, "SHA2-256", "fips=yes")) == nullptr) {
        fail();
    }
}

void FipsMode::enable() {
    if (EVP_default_properties_is_fips_enabled(nullptr) == 1) {
        return;
    }
    if (EVP_default_properties_enable_fips(nullptr, 1) != 1) {
        fail();
    }
    m_enabled = true;
}

FipsMode::~FipsMode() {
    if (m_enabled) {
        static_cast<void>(EVP_default_properties_enable_fips(nullptr, 0));  // if it fails, the mode stays on
    }
}

}  // namespace olmdsess
