/// TLS on the server's side: its certificate, and whose certificate a client may show.
#pragma once

#include <openssl/ssl.h>

#include <ctime>
#include <string>
#include <vector>

#include "runtime/DistinguishedName.h"
#include "runtime/openssl_ptr.h"

namespace dsessd {

/// The files of a server, all PEM, and what goes with them.
struct TlsFiles {
    /// The server's certificate, then the chain above it. Empty: plain HTTP.
    std::string certificate;
    /// Nobody else may have permissions on it.
    std::string key;
    /// Its first line opens the key. Empty: the key needs no password.
    std::string keyPassword;
    /// When given, a client has to show a certificate that leads to one of these. They may be issuing authorities
    /// alone.
    std::string clientAuthorities;
    /// Revocation lists. When there are any, a client is refused unless its issuer has a list that is still valid.
    std::vector<std::string> revocationLists;
    /// Subjects, in the text form of DistinguishedName.h, that may connect. Empty: all that the authorities vouch for.
    std::vector<std::string> clientNames;
};

/// The certificates, key and rules, as read from the files once. It never changes, so any number of threads may use it.
///
/// TLS 1.2 or newer, with forward secrecy. Sessions are never resumed, so that every connection shows its certificate
/// anew.
class TlsContext {
  public:
    /// Refuses what can never work. Throws std::runtime_error with one line that names the file at fault.
    explicit TlsContext(const TlsFiles& files);
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    /// The server's end of a connection. This object and `problem` have to outlive its handshake; `problem` gets what
    /// is wrong with the client's certificate, if anything. Throws std::bad_alloc.
    ConnectionPtr makeConnection(std::string& problem) const;

    /// When a certificate or a revocation list ends.
    struct Ending {
        std::string what;
        std::string file;
        std::time_t time;
        /// The log mentions it from this time on.
        std::time_t warnFrom;
    };
    const std::vector<Ending>& endings() const { return m_endings; }

  private:
    void offerCertificate(const TlsFiles& files);
    void offerKey(const TlsFiles& files);
    void askForCertificates(const TlsFiles& files);
    void watch(const X509* certificate, const std::string& file);
    static int verifyCallback(int verified, X509_STORE_CTX* chain);
    bool isListed(const X509* certificate) const;

    ContextPtr m_context;
    std::vector<DistinguishedName> m_clientNames;
    std::vector<Ending> m_endings;
};

/// The certificate that the peer has shown and that was verified: subject, issuer and serial number. Empty when it has
/// shown none.
std::string peerText(const SSL* connection);

/// The text of an error code of OpenSSL. A code of 0 means that the other side ended the connection without a word.
std::string tlsError(unsigned long code);

}  // namespace dsessd
