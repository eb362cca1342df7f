/// The client's key file: its identity and the CA certificates it trusts.
///
/// PKCS#12: an identity is a private key and its certificate; its label is their friendly name. PEM: one private key
/// and its certificate; its label is the certificate's common name. In both, CA certificates and certificates that sign
/// themselves are trusted, with or without their keys.
#pragma once

#include <string>
#include <vector>

#include "runtime/openssl_ptr.h"

namespace olmdsess {

/// The identity and the trusted certificates that were taken from a key file.
struct KeyFile {
    PrivateKeyPtr key;                    ///< null: no identity
    CertificatePtr certificate;           ///< of the key
    std::vector<CertificatePtr> chain;    ///< the certificates above it, in order, as far as the file has them
    std::vector<CertificatePtr> trusted;  ///< at least one
};

/// Reads a key file and chooses its identity. A CA certificate that its issuer in the file has not signed is
/// refused, so that damage adds nobody to those who are trusted.
///
/// stashPath: a file whose first line is the password; null: none. It has to be a regular file, not a link, that
///   belongs to this user or root and gives nobody else any permission. The same holds for a key file whose private key
///   is not encrypted, but it may be a link. A key file that no password seals must not be writable for others.
/// label: of the identity; null: the only one there is.
///
/// Throws Failure with kStatusKeyFile, or std::bad_alloc.
KeyFile loadKeyFile(const char* path, const char* stashPath, const char* label);

}  // namespace olmdsess
