/// What a TLS connection has to be like: whom we trust, who we are, who the server may be.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "admin/client-interface/olm_dsess_admin.h"
#include "admin/client/base/Trace.h"
#include "admin/client/tls/FipsMode.h"
#include "admin/client/tls/KeyFile.h"
#include "runtime/DistinguishedName.h"

namespace olmdsess {

/// What a policy found out about one connection, for whoever tells people why it failed.
struct TlsReport {
    std::string certificateProblem;  ///< what is wrong with the server's certificate, or empty
    /// The alert by which the server turned our certificate down, or null. It is good for telling people: anybody on
    /// the path can put one in while the handshake lasts.
    const char* certificateAlert = nullptr;
    /// Whether TLS has authenticated that alert, so that the server has read nothing of the request. Only TLS 1.3 has
    /// such alerts: there the request may follow our part of the handshake at once. In older versions nothing is sent
    /// before the handshake has succeeded.
    bool refusalProven = false;
    bool certificateAsked = false;  ///< the server has asked for our certificate
};

/// Makes the client's ends of TLS connections as the settings want them, and checks the server's certificate in each
/// handshake. It must outlive every connection made with it.
class TlsPolicy {
  public:
    /// Loads what the settings name, and traces which certificates end soon. Throws Failure, std::bad_alloc.
    TlsPolicy(const olm_dsess_admin_ssl_info_t& settings, Trace trace);

    /// Whether a key file was given. Without one no server is trusted, and no secure connection can be made.
    bool trustsAnybody() const { return m_context != nullptr; }
    bool hasIdentity() const { return m_keyFile.key != nullptr; }
    /// Our certificate, for people: its subject, its end if that is over, and the key file. Empty without an identity.
    std::string identityText() const;

    /// The client's end of a connection to a host, a name or an address, which the server's certificate must bear
    /// unless the settings list the servers' names. Somebody must be trusted. The report is filled as the connection
    /// goes on and has to outlive it. Throws std::bad_alloc.
    ConnectionPtr makeConnection(const std::string& host, TlsReport& report) const;

  private:
    static int verifyCallback(X509_STORE_CTX* chain, void* policy);
    static int askedCallback(SSL* connection, void* policy);
    static void infoCallback(const SSL* connection, int where, int value);
    bool verify(X509_STORE_CTX* chain, TlsReport& report) const;
    void loadServerNames(const olm_dsess_admin_mv_string_t& names);
    void load(const char* keyFile, const char* stash, const char* label);
    /// Makes the context of all connections. Throws Failure, also when OpenSSL does not take our certificate.
    void makeContext();
    /// Gives the context our certificate, its chain and its key. Returns the certificate that OpenSSL does not take.
    const X509* offerIdentity() const;
    /// Warns in the trace of a certificate that ends soon or has ended, once for each certificate.
    void watchExpiry(const char* whose, const X509* certificate) const;

    const Trace m_trace;
    std::optional<FipsMode> m_fips;
    KeyFile m_keyFile;
    std::string m_keyFileName;
    std::vector<DistinguishedName> m_serverNames;
    ContextPtr m_context;
};

}  // namespace olmdsess
