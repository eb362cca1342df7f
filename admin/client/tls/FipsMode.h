/// OpenSSL's FIPS provider for everything that this process does with OpenSSL from now on (fips_module(7)).
#pragma once

#include <openssl/provider.h>

#include <memory>

namespace olmdsess {

/// Restricts the process to approved cryptography from enable() on, as long as the object lives. Where the system's
/// configuration has done so already, it changes nothing.
class FipsMode {
  public:
    /// Loads the provider and has it test itself, without changing anything yet: key files are protected by means that
    /// the provider does not offer. Throws Failure with kStatusNoFips.
    FipsMode();
    ~FipsMode();
    FipsMode(const FipsMode&) = delete;
    FipsMode& operator=(const FipsMode&) = delete;

    /// Restricts OpenSSL to approved cryptography. Throws Failure with kStatusNoFips.
    void enable();

  private:
    struct Unload {
        void operator()(OSSL_PROVIDER* provider) const { OSSL_PROVIDER_unload(provider); }
    };
    std::unique_ptr<OSSL_PROVIDER, Unload> m_provider;
    bool m_enabled = false;
};

}  // namespace olmdsess
