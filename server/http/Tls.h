/// TLS on the server's side: one context for all connections.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace dsessd {

struct TlsFiles {
    /// PEM: the server's certificate, then the chain above it.
    std::string certificate;
    /// PEM, without a passphrase.
    std::string key;
    /// PEM; when given, a client has to show a certificate from one of these authorities.
    std::string clientAuthorities;
};

struct SslContextFree {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using SslContext = std::unique_ptr<SSL_CTX, SslContextFree>;

struct SslFree {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using Ssl = std::unique_ptr<SSL, SslFree>;

/// TLS 1.2 or newer, with forward secrecy. Sessions are never resumed, so that every connection shows its certificate
/// anew. Throws std::runtime_error with one line that names the file at fault.
SslContext makeTlsContext(const TlsFiles& files);

/// Subject of the certificate that the peer has shown and that was verified, such as `C=DE,O=Example,CN=desk`; empty
/// when it has shown none.
std::string peerSubject(const SSL* ssl);

/// What an error of OpenSSL was about; 0: there was none, the other side just said nothing more.
std::string tlsError(unsigned long code);
/// The same of the first error since the queue was cleared; the queue is empty afterwards.
std::string tlsError();

}  // namespace dsessd
