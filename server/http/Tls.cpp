#include "server/http/Tls.h"

#include <openssl/err.h>
#include <openssl/x509.h>

#include <cstring>
#include <stdexcept>

namespace dsessd {

namespace {

int noPassphrase(char*, int, int, void*) {
    return -1;
}

void require(bool done, const std::string& file, const char* what) {
    if (!done) {
        throw std::runtime_error(std::string(what) + " " + file + " cannot be used: " + tlsError());
    }
}

}  // namespace

std::string tlsError() {
    const unsigned long code = ERR_peek_error();
    ERR_clear_error();
    return tlsError(code);
}

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

SslContext makeTlsContext(const TlsFiles& files) {
    SslContext context(SSL_CTX_new(TLS_server_method()));
    if (!context) {
        throw std::runtime_error("TLS is not available: " + tlsError());
    }
    SSL_CTX* raw = context.get();
    SSL_CTX_set_options(raw, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_session_cache_mode(raw, SSL_SESS_CACHE_OFF);
    if (SSL_CTX_set_min_proto_version(raw, TLS1_2_VERSION) != 1 || SSL_CTX_set_num_tickets(raw, 0) != 1 ||
        SSL_CTX_set_cipher_list(raw, "ECDHE+AESGCM:ECDHE+CHACHA20") != 1) {
        throw std::runtime_error("TLS is not available: " + tlsError());
    }
    SSL_CTX_set_default_passwd_cb(raw, noPassphrase);
    require(SSL_CTX_use_certificate_chain_file(raw, files.certificate.c_str()) == 1, files.certificate,
            "the certificate");
    require(SSL_CTX_use_PrivateKey_file(raw, files.key.c_str(), SSL_FILETYPE_PEM) == 1, files.key, "the private key");
    require(SSL_CTX_check_private_key(raw) == 1, files.key, "the private key");
    if (!files.clientAuthorities.empty()) {
        const char* path = files.clientAuthorities.c_str();
        STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(path);
        require(names != nullptr && SSL_CTX_load_verify_file(raw, path) == 1, files.clientAuthorities,
                "the file of client authorities");
        SSL_CTX_set_client_CA_list(raw, names);
        SSL_CTX_set_verify(raw, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    return context;
}

std::string peerSubject(const SSL* ssl) {
    if (ssl == nullptr) {
        return {};
    }
    const X509* certificate = SSL_get0_peer_certificate(ssl);
    if (certificate == nullptr) {
        return {};
    }
    const std::unique_ptr<BIO, decltype(&::BIO_free)> memory(BIO_new(BIO_s_mem()), ::BIO_free);
    // RFC 2253's escapes keep one name from passing for several; order and letters stay as they are.
    constexpr unsigned long kFlags = XN_FLAG_RFC2253 & ~XN_FLAG_DN_REV & ~ASN1_STRFLGS_ESC_MSB;
    if (!memory || X509_NAME_print_ex(memory.get(), X509_get_subject_name(certificate), 0, kFlags) < 0) {
        return "(unreadable)";
    }
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

}  // namespace dsessd
