#include "server/http/Tls.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>

#include "runtime/QelTimeText.h"
#include "runtime/SecretFile.h"

namespace dsessd {

namespace {

using ListPtr = std::unique_ptr<X509_CRL, OpensslDeleter<X509_CRL_free>>;
using NumberPtr = std::unique_ptr<BIGNUM, OpensslDeleter<BN_free>>;
using HexText = std::unique_ptr<char, OpensslDeleter<[](char* text) { OPENSSL_free(text); }>>;

constexpr std::time_t kWarnBefore = std::time_t{30} * 24 * 60 * 60;

[[noreturn]] void refuse(const char* what, const std::string& file, const std::string& why) {
    throw std::runtime_error(std::string(what) + " " + file + " " + why);
}

/// The text of the first error since the queue was cleared; the queue is empty afterwards.
std::string firstError() {
    const unsigned long code = ERR_peek_error();
    ERR_clear_error();
    return tlsError(code);
}

void require(bool done, const char* what, const std::string& file) {
    if (!done) {
        refuse(what, file, "cannot be used: " + firstError());
    }
}

/// Reads objects of a kind up to the end of a PEM file, which must hold one at least.
template <class Owner, class Read>
std::vector<Owner> readAll(const char* what, const std::string& file, Read read) {
    ERR_clear_error();
    const BioPtr source(BIO_new_file(file.c_str(), "r"));
    require(source != nullptr, what, file);
    std::vector<Owner> objects;
    while (Owner object{read(source.get(), nullptr, nullptr, nullptr)}) {
        objects.push_back(std::move(object));
    }
    const bool isEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    require(isEnd && !objects.empty(), what, file);
    ERR_clear_error();
    return objects;
}

std::time_t timeOf(const ASN1_TIME* time) {
    std::tm parts{};
    return time != nullptr && ASN1_TIME_to_tm(time, &parts) == 1 ? timegm(&parts) : 0;
}

std::string certificateText(const X509* certificate) {
    const NumberPtr number(ASN1_INTEGER_to_BN(X509_get0_serialNumber(certificate), nullptr));
    const HexText serial(number == nullptr ? nullptr : BN_bn2hex(number.get()));
    return subjectText(certificate) + ", issued by " + nameText(X509_get_issuer_name(certificate)) +
           ", serial number " + (serial == nullptr ? "unreadable" : serial.get());
}

/// What is wrong with a client's certificate, in words that an administrator can act on.
std::string problemText(int error) {
    switch (error) {
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return "has expired";
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return "is not valid yet";
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
            return "has an unknown issuer (--client-ca)";
        case X509_V_ERR_CERT_REVOKED:
            return "is revoked";
        case X509_V_ERR_UNABLE_TO_GET_CRL:
            return "has an issuer without a revocation list (--client-crl)";
        case X509_V_ERR_CRL_HAS_EXPIRED:
            return "has an issuer whose revocation list has ended (--client-crl)";
        case X509_V_ERR_INVALID_PURPOSE:
            return "has another purpose than clients'";
        case X509_V_ERR_CERT_SIGNATURE_FAILURE:
            return "has a wrong signature";
        case X509_V_ERR_CERT_REJECTED:
            return "is not in the list (--client-names)";
        default:
            return std::string("was not taken: ") + X509_verify_cert_error_string(error);
    }
}

// Where a connection keeps its `problem`, and a context its TlsContext. Asio uses the first index of both.
int problemIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

int contextIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

/// The password of a private key, and whether OpenSSL has asked for it.
struct KeyPassword {
    SecretBuffer text;
    bool isGiven = false;
    bool wasAsked = false;
};

KeyPassword readKeyPassword(const std::string& file) {
    try {
        return file.empty() ? KeyPassword{} : KeyPassword{readPasswordFile(file.c_str()), true};
    } catch (const UnusableFile& unusable) {
        refuse("the file of the key's password", file, unusable.why);
    }
}

/// Takes the place of OpenSSL's prompt. `data`: a KeyPassword.
int givePassword(char* room, int size, int /*writing*/, void* data) {
    auto& password = *static_cast<KeyPassword*>(data);
    password.wasAsked = true;
    if (!password.isGiven || password.text.size() > static_cast<std::size_t>(size)) {
        return -1;
    }
    std::copy(password.text.begin(), password.text.end(), room);
    return static_cast<int>(password.text.size());
}

}  // namespace

std::string tlsError(unsigned long code) {
    if (code == 0) {
        return "no answer";
    }
    if (ERR_SYSTEM_ERROR(code)) {
        return std::strerror(ERR_GET_REASON(code));
    }
    const char* reason = ERR_reason_error_string(code);
    return reason == nullptr ? "error " + std::to_string(code) : reason;
}

TlsContext::TlsContext(const TlsFiles& files) : m_context(SSL_CTX_new(TLS_server_method())) {
    SSL_CTX* raw = m_context.get();
    // OpenSSL's configuration file may demand a newer version than 1.2 (MinProtocol); then that one holds.
    if (raw == nullptr || SSL_CTX_set_ex_data(raw, contextIndex(), this) != 1 ||
        SSL_CTX_set_min_proto_version(
            raw, std::max(TLS1_2_VERSION, static_cast<int>(SSL_CTX_get_min_proto_version(raw)))) != 1 ||
        SSL_CTX_set_num_tickets(raw, 0) != 1 || SSL_CTX_set_cipher_list(raw, "ECDHE+AESGCM:ECDHE+CHACHA20") != 1) {
        throw std::runtime_error("TLS is not available: " + firstError());
    }
    SSL_CTX_set_options(raw, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_session_cache_mode(raw, SSL_SESS_CACHE_OFF);
    offerCertificate(files);
    offerKey(files);
    if (!files.clientAuthorities.empty()) {
        askForCertificates(files);
    }
}

void TlsContext::offerCertificate(const TlsFiles& files) {
    constexpr const char* kWhat = "the certificate";
    const auto chain = readAll<CertificatePtr>(kWhat, files.certificate, PEM_read_bio_X509);
    X509* own = chain.front().get();
    if (X509_cmp_current_time(X509_get0_notAfter(own)) < 0) {
        refuse(kWhat, files.certificate,
               std::string("ended on ") + QelTimeText(timeOf(X509_get0_notAfter(own)), "%F %T UTC").data());
    }
    if (X509_check_purpose(own, X509_PURPOSE_SSL_SERVER, 0) != 1) {
        refuse(kWhat, files.certificate, "is not for servers: its extended key usage lacks serverAuth");
    }
    require(SSL_CTX_use_certificate(m_context.get(), own) == 1, kWhat, files.certificate);
    for (const CertificatePtr& certificate : chain) {
        const bool isOwn = certificate == chain.front();
        require(isOwn || SSL_CTX_add1_chain_cert(m_context.get(), certificate.get()) == 1, kWhat, files.certificate);
        watch(certificate.get(), files.certificate);
    }
}

void TlsContext::offerKey(const TlsFiles& files) {
    constexpr const char* kWhat = "the private key";
    KeyPassword password = readKeyPassword(files.keyPassword);
    ERR_clear_error();
    try {
        const SecretFile file(files.key.c_str(), 0);
        file.checkOwner(SecretFile::kNobodyElse, "");
        const BioPtr source(BIO_new_mem_buf(file.bytes().data(), static_cast<int>(file.bytes().size())));
        require(source != nullptr, kWhat, files.key);
        const PrivateKeyPtr key(PEM_read_bio_PrivateKey(source.get(), nullptr, givePassword, &password));
        if (key == nullptr && password.wasAsked) {
            throw UnusableFile{password.isGiven ? "has another password than " + files.keyPassword + " says"
                                                : "needs a password (--tls-key-password-file)"};
        }
        require(key != nullptr, kWhat, files.key);
        if (X509_check_private_key(SSL_CTX_get0_certificate(m_context.get()), key.get()) != 1) {
            throw UnusableFile{"belongs to another certificate than " + files.certificate};
        }
        require(SSL_CTX_use_PrivateKey(m_context.get(), key.get()) == 1, kWhat, files.key);
    } catch (const UnusableFile& file) {
        refuse(kWhat, files.key, file.why);
    }
}

void TlsContext::askForCertificates(const TlsFiles& files) {
    constexpr const char* kAuthorities = "the file of client authorities";
    X509_STORE* trusted = SSL_CTX_get_cert_store(m_context.get());
    for (const CertificatePtr& authority :
         readAll<CertificatePtr>(kAuthorities, files.clientAuthorities, PEM_read_bio_X509)) {
        require(X509_STORE_add_cert(trusted, authority.get()) == 1 &&
                    SSL_CTX_add_client_CA(m_context.get(), authority.get()) == 1,
                kAuthorities, files.clientAuthorities);
        watch(authority.get(), files.clientAuthorities);
    }
    require(X509_STORE_set_flags(trusted, X509_V_FLAG_PARTIAL_CHAIN) == 1, kAuthorities, files.clientAuthorities);
    for (const std::string& file : files.revocationLists) {
        constexpr const char* kList = "the revocation list";
        for (const ListPtr& list : readAll<ListPtr>(kList, file, PEM_read_bio_X509_CRL)) {
            require(X509_STORE_add_crl(trusted, list.get()) == 1, kList, file);
            const std::time_t end = timeOf(X509_CRL_get0_nextUpdate(list.get()));
            m_endings.push_back({"the revocation list of " + nameText(X509_CRL_get_issuer(list.get())) + " in " + file,
                                 file, end, end});
        }
        require(X509_STORE_set_flags(trusted, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL) == 1, kList, file);
    }
    for (const std::string& text : files.clientNames) {
        const std::optional<DistinguishedName> name = parseDistinguishedName(text);
        if (!name) {
            throw std::runtime_error("--client-names takes names such as /C=DE/O=Example/CN=desk, not '" + text + "'");
        }
        m_clientNames.push_back(*name);
    }
    SSL_CTX_set_verify(m_context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, verifyCallback);
}

void TlsContext::watch(const X509* certificate, const std::string& file) {
    const std::time_t end = timeOf(X509_get0_notAfter(certificate));
    m_endings.push_back({"the certificate " + subjectText(certificate) + " in " + file, file, end, end - kWarnBefore});
}

ConnectionPtr TlsContext::makeConnection(std::string& problem) const {
    ConnectionPtr connection(SSL_new(m_context.get()));
    if (connection == nullptr || SSL_set_ex_data(connection.get(), problemIndex(), &problem) != 1) {
        throw std::bad_alloc();
    }
    return connection;
}

/// Called for each certificate of the chain, the client's last. Notes why a client is refused.
int TlsContext::verifyCallback(int verified, X509_STORE_CTX* chain) {
    const auto* connection =
        static_cast<const SSL*>(X509_STORE_CTX_get_ex_data(chain, SSL_get_ex_data_X509_STORE_CTX_idx()));
    const auto& self =
        *static_cast<const TlsContext*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), contextIndex()));
    auto& problem = *static_cast<std::string*>(SSL_get_ex_data(connection, problemIndex()));
    const bool isClients = X509_STORE_CTX_get_error_depth(chain) == 0;
    try {
        if (verified != 1 && !isClients && X509_STORE_CTX_get_error(chain) == X509_V_ERR_UNABLE_TO_GET_CRL) {
            X509_STORE_CTX_set_error(chain, X509_V_OK);  // only the client's own issuer has to have a list
            return 1;
        }
        const X509* client = X509_STORE_CTX_get0_cert(chain);
        if (verified == 1 && (!isClients || self.isListed(client))) {
            return 1;
        }
        if (verified == 1) {
            X509_STORE_CTX_set_error(chain, X509_V_ERR_CERT_REJECTED);
        }
        const X509* culprit = X509_STORE_CTX_get_current_cert(chain);
        problem = "the client's certificate " +
                  (isClients || culprit == nullptr ? "" : "has an authority " + subjectText(culprit) + " that ") +
                  problemText(X509_STORE_CTX_get_error(chain)) + ": " + certificateText(client);
    } catch (const std::bad_alloc&) {
        X509_STORE_CTX_set_error(chain, X509_V_ERR_OUT_OF_MEM);
    }
    return 0;
}

bool TlsContext::isListed(const X509* certificate) const {
    const std::optional<DistinguishedName> name = subjectName(certificate);
    return m_clientNames.empty() ||
           (name && std::find(m_clientNames.begin(), m_clientNames.end(), *name) != m_clientNames.end());
}

std::string peerText(const SSL* connection) {
    const X509* certificate = SSL_get0_peer_certificate(connection);
    return certificate == nullptr ? "" : certificateText(certificate);
}

}  // namespace dsessd
