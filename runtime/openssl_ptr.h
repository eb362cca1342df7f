/// Smart pointers that own OpenSSL's objects and free them.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

template <auto function>
struct OpensslDeleter {
    template <class Object>
    void operator()(Object* object) const noexcept {
        function(object);
    }
};

using BioPtr = std::unique_ptr<BIO, OpensslDeleter<BIO_free_all>>;
using CertificatePtr = std::unique_ptr<X509, OpensslDeleter<X509_free>>;
using PrivateKeyPtr = std::unique_ptr<EVP_PKEY, OpensslDeleter<EVP_PKEY_free>>;
using ContextPtr = std::unique_ptr<SSL_CTX, OpensslDeleter<SSL_CTX_free>>;
using ConnectionPtr = std::unique_ptr<SSL, OpensslDeleter<SSL_free>>;
using Octets = std::unique_ptr<ASN1_OCTET_STRING, OpensslDeleter<ASN1_OCTET_STRING_free>>;
using StorePtr = std::unique_ptr<X509_STORE, OpensslDeleter<X509_STORE_free>>;
using MacPtr = std::unique_ptr<EVP_MAC, OpensslDeleter<EVP_MAC_free>>;
using MacContextPtr = std::unique_ptr<EVP_MAC_CTX, OpensslDeleter<EVP_MAC_CTX_free>>;
using DigestPtr = std::unique_ptr<EVP_MD, OpensslDeleter<EVP_MD_free>>;
using ObjectPtr = std::unique_ptr<ASN1_OBJECT, OpensslDeleter<ASN1_OBJECT_free>>;
