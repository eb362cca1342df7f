#include "admin/client/tls/TlsPolicy.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cassert>
#include <new>
#include <set>

#include "admin/client/base/Failure.h"
#include "catalogue/qel_messages.h"

namespace olmdsess {

namespace {

constexpr int kExpiryWarningDays = 30;

/// Where a connection keeps its report.
int reportIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

TlsReport& reportOf(const SSL* connection) {
    return *static_cast<TlsReport*>(SSL_get_ex_data(connection, reportIndex()));
}

/// Throws std::bad_alloc unless `done`. For calls of OpenSSL that fail for nothing but a lack of memory.
void require(bool done) {
    if (!done) {
        ERR_clear_error();
        throw std::bad_alloc();
    }
}

bool isCertificateAlert(int description) {
    switch (description) {
        case SSL_AD_BAD_CERTIFICATE:
        case SSL_AD_UNSUPPORTED_CERTIFICATE:
        case SSL_AD_CERTIFICATE_REVOKED:
        case SSL_AD_CERTIFICATE_EXPIRED:
        case SSL_AD_CERTIFICATE_UNKNOWN:
        case SSL_AD_UNKNOWN_CA:
            return true;
        default:
            return false;
    }
}

StorePtr makeStore(const std::vector<CertificatePtr>& certificates) {
    StorePtr store(X509_STORE_new());
    require(store != nullptr);
    for (const CertificatePtr& certificate : certificates) {
        require(X509_STORE_add_cert(store.get(), certificate.get()) == 1);
    }
    // Every certificate of the file is trusted, also one that another CA has signed.
    require(X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN) == 1);
    return store;
}

/// OpenSSL's configuration may offer ciphers that do not encrypt, or that show no certificate.
void dropCiphersWithoutSecurity(SSL_CTX* context) {
    const STACK_OF(SSL_CIPHER)* ciphers = SSL_CTX_get_ciphers(context);
    std::string secure;
    bool dropped = false;
    for (int index = 0; index < sk_SSL_CIPHER_num(ciphers); ++index) {
        const SSL_CIPHER* cipher = sk_SSL_CIPHER_value(ciphers, index);
        if (SSL_CIPHER_get_cipher_nid(cipher) == NID_undef || SSL_CIPHER_get_auth_nid(cipher) == NID_auth_null) {
            dropped = true;
        } else {
            secure += (secure.empty() ? "" : ":") + std::string(SSL_CIPHER_get_name(cipher));
        }
    }
    if (dropped) {
        // The names of TLS 1.3's are passed over: they have a list of their own, which has none of these.
        require(SSL_CTX_set_cipher_list(context, secure.empty() ? "DEFAULT" : secure.c_str()) == 1);
    }
}

/// Why OpenSSL does not take a certificate. Empties its queue of errors.
std::string weaknessText(unsigned long error) {
    ERR_clear_error();
    switch (ERR_GET_REASON(error)) {
        case SSL_R_EE_KEY_TOO_SMALL:
        case SSL_R_CA_KEY_TOO_SMALL:
            return "its key is shorter than OpenSSL's security level allows";
        case SSL_R_CA_MD_TOO_WEAK:
            return "its signature's digest (such as SHA-1) is weaker than OpenSSL's security level allows";
        default:
            const char* reason = ERR_reason_error_string(error);
            return reason == nullptr ? "OpenSSL does not take it" : reason;
    }
}

std::string timeText(const ASN1_TIME* time) {
    const BioPtr bio(BIO_new(BIO_s_mem()));
    char* text = nullptr;
    if (bio == nullptr || ASN1_TIME_print(bio.get(), time) != 1) {
        return "an unknown day";
    }
    const long length = BIO_get_mem_data(bio.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

/// When a certificate ended, if it did.
std::string endText(const X509* certificate) {
    const ASN1_TIME* end = X509_get0_notAfter(certificate);
    return X509_cmp_current_time(end) < 0 ? ", which ended on " + timeText(end) : std::string();
}

}  // namespace

TlsPolicy::TlsPolicy(const olm_dsess_admin_ssl_info_t& settings, Trace trace) : m_trace(trace) {
    if (settings.fips_enabled != 0) {
        m_fips.emplace();
    }
    loadServerNames(settings.server_dns);
    if (settings.keyfile != nullptr) {
        load(settings.keyfile, settings.keyfile_stash, settings.keyfile_label);
    }
    if (m_fips) {
        m_fips->enable();
    }
    if (settings.keyfile != nullptr) {
        makeContext();
    }
}

void TlsPolicy::loadServerNames(const olm_dsess_admin_mv_string_t& names) {
    for (std::int32_t index = 0; index < names.count; ++index) {
        const std::string_view text = names.values[index];
        const auto fail = [text](const char* why) {
            throw Failure{kStatusKeyFile,
                          "the server name (server-dns) \"" + std::string(text) + "\" cannot be read" + why};
        };
        if (text.starts_with(' ') || text.ends_with(' ')) {
            fail(": write no blank before or after it; one that belongs to a name is written \\20");
        }
        std::optional<DistinguishedName> name = parseDistinguishedName(text);
        if (!name) {
            fail(
                "; write it like /C=DE/O=Example/CN=node1, in a value \\2C for a comma, \\/ for a slash, \\+ for a "
                "plus");
        }
        m_serverNames.push_back(std::move(*name));
    }
}

void TlsPolicy::load(const char* keyFile, const char* stash, const char* label) {
    m_keyFile = loadKeyFile(keyFile, stash, label);
    m_keyFileName = keyFile;
    const std::string whose = std::string("of the key file ") + keyFile;
    if (hasIdentity()) {
        watchExpiry(whose.c_str(), m_keyFile.certificate.get());
    }
    for (const CertificatePtr& certificate : m_keyFile.trusted) {
        watchExpiry(whose.c_str(), certificate.get());
    }
}

void TlsPolicy::makeContext() {
    m_context.reset(SSL_CTX_new(TLS_client_method()));
    require(m_context != nullptr);
    SSL_CTX* const context = m_context.get();
    // OpenSSL's configuration may ask for a newer version.
    if (SSL_CTX_get_min_proto_version(context) < TLS1_2_VERSION) {
        require(SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1);
    }
    dropCiphersWithoutSecurity(context);
    // A resumed session would skip the check of the server's name; no certificate is asked for behind a request's back.
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, verifyCallback, this);
    SSL_CTX_set_info_callback(context, infoCallback);
    SSL_CTX_set_cert_cb(context, askedCallback, nullptr);
    SSL_CTX_set1_cert_store(context, makeStore(m_keyFile.trusted).get());
    if (const X509* refused = hasIdentity() ? offerIdentity() : nullptr) {
        throw Failure{kStatusKeyFile, "the certificate " + subjectText(refused) + " of the key file " + m_keyFileName +
                                          " cannot be used: " + weaknessText(ERR_get_error())};
    }
}

const X509* TlsPolicy::offerIdentity() const {
    SSL_CTX* const context = m_context.get();
    // The chain is the key file's, not one that OpenSSL makes up to the first certificate that we trust.
    SSL_CTX_set_mode(context, SSL_MODE_NO_AUTO_CHAIN);
    if (SSL_CTX_use_certificate(context, m_keyFile.certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context, m_keyFile.key.get()) != 1) {
        return m_keyFile.certificate.get();
    }
    for (const CertificatePtr& certificate : m_keyFile.chain) {
        if (SSL_CTX_add1_chain_cert(context, certificate.get()) != 1) {
            return certificate.get();
        }
    }
    return nullptr;
}

ConnectionPtr TlsPolicy::makeConnection(const std::string& host, TlsReport& report) const {
    assert(trustsAnybody());
    report = TlsReport();
    ConnectionPtr connection(SSL_new(m_context.get()));
    require(connection != nullptr && SSL_set_ex_data(connection.get(), reportIndex(), &report) == 1);
    X509_VERIFY_PARAM* const wanted = SSL_get0_param(connection.get());
    const bool isAddress = Octets(a2i_IPADDRESS(host.c_str())) != nullptr;
    // A name is shown to the server too, which may have a certificate for each (RFC 6066, section 3).
    require(isAddress || SSL_set_tlsext_host_name(connection.get(), host.c_str()) == 1);
    if (m_serverNames.empty()) {
        // A CA's name constraints do not bind the common name as they bind subjectAltName, so it does not count.
        X509_VERIFY_PARAM_set_hostflags(wanted, X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
        require((isAddress ? X509_VERIFY_PARAM_set1_ip_asc(wanted, host.c_str())
                           : X509_VERIFY_PARAM_set1_host(wanted, host.c_str(), host.size())) == 1);
    }
    return connection;
}

std::string TlsPolicy::identityText() const {
    return hasIdentity() ? subjectText(m_keyFile.certificate.get()) + " of the key file " + m_keyFileName +
                               endText(m_keyFile.certificate.get())
                         : std::string();
}

void TlsPolicy::watchExpiry(const char* whose, const X509* certificate) const {
    static std::set<std::string> mentioned;
    int days = 0;
    int seconds = 0;
    const ASN1_TIME* end = X509_get0_notAfter(certificate);
    if (ASN1_TIME_diff(&days, &seconds, nullptr, end) != 1 || days >= kExpiryWarningDays) {
        return;
    }
    const std::string text = "the certificate " + subjectText(certificate) + " " + whose +
                             (X509_cmp_current_time(end) < 0 ? " ended on " : " ends on ") + timeText(end);
    if (mentioned.insert(text).second) {
        m_trace.line(kTraceFailure, text);
    }
}

int TlsPolicy::verifyCallback(X509_STORE_CTX* chain, void* policy) {
    const auto* connection =
        static_cast<const SSL*>(X509_STORE_CTX_get_ex_data(chain, SSL_get_ex_data_X509_STORE_CTX_idx()));
    try {
        if (static_cast<const TlsPolicy*>(policy)->verify(chain, reportOf(connection))) {
            return 1;
        }
    } catch (const std::bad_alloc&) {
        X509_STORE_CTX_set_error(chain, X509_V_ERR_OUT_OF_MEM);
    }
    if (X509_STORE_CTX_get_error(chain) == X509_V_OK) {
        X509_STORE_CTX_set_error(chain, X509_V_ERR_UNSPECIFIED);
    }
    return 0;
}

bool TlsPolicy::verify(X509_STORE_CTX* chain, TlsReport& report) const {
    const X509* server = X509_STORE_CTX_get0_cert(chain);
    if (X509_verify_cert(chain) != 1) {
        const int error = X509_STORE_CTX_get_error(chain);
        if (error == X509_V_ERR_OUT_OF_MEM) {
            throw std::bad_alloc();
        }
        const X509* culprit = X509_STORE_CTX_get_current_cert(chain);
        culprit = culprit == nullptr ? server : culprit;
        const bool isForAnother = error == X509_V_ERR_HOSTNAME_MISMATCH || error == X509_V_ERR_IP_ADDRESS_MISMATCH;
        report.certificateProblem = subjectText(culprit) + endText(culprit) + ": " +
                                    (isForAnother ? "its subjectAltName does not bear the location's host"
                                                  : X509_verify_cert_error_string(error));
        return false;
    }
    if (!m_serverNames.empty()) {
        const std::optional<DistinguishedName> name = subjectName(server);
        if (!name || std::find(m_serverNames.begin(), m_serverNames.end(), *name) == m_serverNames.end()) {
            report.certificateProblem = subjectText(server) + ": this name is not on the list (server-dns)";
            X509_STORE_CTX_set_error(chain, X509_V_ERR_APPLICATION_VERIFICATION);
            return false;
        }
    }
    const STACK_OF(X509)* certificates = X509_STORE_CTX_get0_chain(chain);
    for (int index = 0; index < sk_X509_num(certificates); ++index) {
        watchExpiry("of the server", sk_X509_value(certificates, index));
    }
    return true;
}

int TlsPolicy::askedCallback(SSL* connection, void* /*unused*/) {
    reportOf(connection).certificateAsked = true;
    return 1;
}

void TlsPolicy::infoCallback(const SSL* connection, int where, int value) {
    if ((where & SSL_CB_READ_ALERT) != SSL_CB_READ_ALERT) {
        return;
    }
    TlsReport& report = reportOf(connection);
    const int description = value & 0xFF;
    const bool finished = SSL_is_init_finished(connection) != 0;
    const bool authenticated = finished && SSL_version(connection) == TLS1_3_VERSION;
    // Before TLS 1.3 a warning ends nothing. One that comes before the server asks for a certificate is not about ours.
    if (!report.certificateAsked || (!authenticated && value >> 8 != SSL3_AL_FATAL)) {
        return;
    }
    // Before TLS 1.3 there is no alert of its own for a certificate that was asked for and did not come.
    const bool lacksCertificate =
        description == SSL_AD_CERTIFICATE_REQUIRED ||
        (description == SSL_AD_HANDSHAKE_FAILURE && SSL_get_certificate(connection) == nullptr && !finished);
    if (lacksCertificate || isCertificateAlert(description)) {
        report.certificateAlert = lacksCertificate ? "a certificate is required" : SSL_alert_desc_string_long(value);
        report.refusalProven = authenticated;
    }
}

}  // namespace olmdsess
