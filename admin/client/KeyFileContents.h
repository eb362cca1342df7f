/// What a key file holds, before it is known what belongs together, and how its readers refuse one.
#pragma once

#include <string>
#include <vector>

#include "admin/client/openssl_ptr.h"

namespace olmdsess {

struct KeyFileContents {
    struct Certificate {
        CertificatePtr certificate;
        std::string label;
    };
    struct Key {
        PrivateKeyPtr key;
        std::string label;
    };

    std::vector<Certificate> certificates;
    std::vector<Key> keys;
    bool hasPlainKey = false;  ///< whoever reads the file has a private key
    bool isSealed = false;     ///< nobody changes it unnoticed without its password

    /// Add what is not there yet: an export may hold the same certificate twice. The first label counts.
    void add(CertificatePtr certificate, const std::string& label);
    void add(PrivateKeyPtr key, const std::string& label);
};

/// Throws TlsProblem with kStatusKeyFile, and empties OpenSSL's queue of errors.
[[noreturn]] void failOfKeyFile(const std::string& text);

/// Whether one of the errors in OpenSSL's queue, which is emptied, is an algorithm that no provider offers.
bool failedOfAlgorithm();

/// The work of making keys from passwords that a file asks for, so that none holds the program up for long.
class DerivationWork {
  public:
    /// `path` is kept.
    explicit DerivationWork(const std::string& path) : m_path(path) {}

    /// Counts it before it is done; null algorithms and such as ask for none are nothing. Throws TlsProblem when it is
    /// too much.
    void add(const X509_ALGOR* algorithm);
    void add(const ASN1_INTEGER* iterations);

  private:
    void add(double iterations);

    const std::string& m_path;
    double m_iterations = 0;
};

}  // namespace olmdsess
