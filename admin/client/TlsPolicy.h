/// What a TLS connection has to be like: whom we trust, who we are, who the server may be.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "admin/client-interface/olm_dsess_admin.h"
#include "admin/client/DistinguishedName.h"
#include "admin/client/FipsMode.h"
#include "admin/client/KeyFile.h"
#include "admin/client/Trace.h"

namespace olmdsess {

/// Outlives every connection made with it.
class TlsPolicy {
  public:
    /// Loads what the settings name. Throws TlsProblem, std::bad_alloc.
    TlsPolicy(const olm_dsess_admin_ssl_info_t& settings, Trace trace);

    /// Whether the certificates of the key file, rather than the system's, are the ones trusted.
    bool hasOwnAnchors() const { return m_anchors != nullptr; }
    /// Whether the server is known by its certificate's subject rather than by its host name.
    bool namesServers() const { return !m_serverNames.empty(); }
    bool hasIdentity() const { return m_keyFile.key != nullptr; }
    /// Our certificate, for people: its subject, its end if that is over, and the key file. Empty without an identity.
    std::string identityText() const;

    /// Prepares a context for one connection. False when OpenSSL does not take what it is given.
    bool configure(SSL_CTX* context);

    /// Forgets what was found on the connection before.
    void beginConnection();
    bool handshakeBegun() const { return m_handshakeBegun; }
    /// What is wrong with the server's certificate, or empty.
    const std::string& certificateProblem() const { return m_certificateProblem; }
    /// The alert by which the server turned our certificate down, or null. It is good for telling people: anybody on
    /// the path can put one in while the handshake lasts.
    const char* certificateAlert() const { return m_certificateAlert; }
    /// Whether that alert was authenticated by TLS. A server gives such a one in TLS 1.3 alone, in place of reading
    /// what was sent behind our part of the handshake; before that, a handshake that fails ends before anything is
    /// sent.
    bool refusalProven() const { return m_refusalProven; }

  private:
    static int verifyCallback(X509_STORE_CTX* chain, void* policy);
    static int askedCallback(SSL* connection, void* policy);
    static void infoCallback(const SSL* connection, int where, int value);
    bool verify(X509_STORE_CTX* chain);
    void loadServerNames(const olm_dsess_admin_mv_string_t& names);
    void load(const char* keyFile, const char* stash, const char* label);
    /// Gives a context our certificate, its chain and its key. Returns the certificate that OpenSSL does not take.
    const X509* offerIdentity(SSL_CTX* context) const;
    /// Shows at once what would fail with every connection.
    void checkIdentity(const char* keyFile) const;
    /// Mentions a certificate that ends soon.
    void watchExpiry(const char* whose, const X509* certificate) const;

    const Trace m_trace;
    std::optional<FipsMode> m_fips;
    KeyFile m_keyFile;
    std::string m_keyFileName;
    StorePtr m_anchors;
    std::vector<DistinguishedName> m_serverNames;
    std::string m_certificateProblem;
    const char* m_certificateAlert = nullptr;
    bool m_refusalProven = false;
    bool m_certificateAsked = false;
    bool m_handshakeBegun = false;
};

}  // namespace olmdsess
