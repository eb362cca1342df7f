#include "admin/client/tls/KeyFile.h"

#include <openssl/err.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "admin/client/base/Failure.h"
#include "admin/client/tls/KeyFileContents.h"
#include "catalogue/qel_messages.h"
#include "runtime/DistinguishedName.h"
#include "runtime/SecretBuffer.h"
#include "runtime/SecretFile.h"

namespace olmdsess {

namespace {

KeyFileContents readContents(const char* path, SecretBuffer& password) {
    const SecretFile file(path, 0);
    KeyFileContents contents = readKeyFileContents(file.bytes(), password);
    if (contents.hasPlainKey) {
        file.checkOwner(SecretFile::kNobodyElse, ", and its private key is not encrypted");
    } else if (!contents.isSealed) {
        file.checkOwner(SecretFile::kNobodyElseWrites, ", and could put in whom to trust");
    }
    return contents;
}

/// A certificate of the file that one of its keys belongs to.
struct Identity {
    X509* certificate;
    EVP_PKEY* key;
    std::string label;
};

/// Finds all identities of a file. A certificate that the file holds twice makes one.
std::vector<Identity> findIdentities(const KeyFileContents& contents) {
    std::vector<Identity> identities;
    for (const auto& [owner, label] : contents.certificates) {
        X509* certificate = owner.get();
        for (const auto& [key, keyLabel] : contents.keys) {
            if (X509_check_private_key(certificate, key.get()) != 1) {
                continue;
            }
            auto same = std::find_if(identities.begin(), identities.end(), [certificate](const Identity& other) {
                return X509_cmp(other.certificate, certificate) == 0;
            });
            if (same == identities.end()) {
                same = identities.insert(same, {certificate, key.get(), {}});
            }
            if (same->label.empty()) {
                same->label = label.empty() ? keyLabel : label;
            }
        }
    }
    return identities;
}

using Certificates = decltype(KeyFileContents::certificates);

bool hasSigned(X509* issuer, X509* certificate) {
    return X509_verify(certificate, X509_get0_pubkey(issuer)) == 1;
}

/// The issuer among these, one that has not ended if there is a choice; null when there is none.
X509* issuerOf(X509* certificate, const Certificates& certificates) {
    std::vector<X509*> issuers;
    for (const auto& [candidate, label] : certificates) {
        if (X509_check_issued(candidate.get(), certificate) == X509_V_OK) {
            issuers.push_back(candidate.get());
        }
    }
    if (issuers.size() > 1) {  // whoever gets the chain verifies it
        std::erase_if(issuers, [certificate](X509* issuer) { return !hasSigned(issuer, certificate); });
    }
    const auto lasting = std::find_if(issuers.begin(), issuers.end(), [](const X509* issuer) {
        return X509_cmp_current_time(X509_get0_notAfter(issuer)) > 0;
    });
    return lasting != issuers.end() ? *lasting : issuers.empty() ? nullptr : issuers.front();
}

/// Whether a certificate says that this one has signed it: by its name, or by the identifier of its key.
bool namesIssuer(X509* certificate, X509* issuer) {
    const ASN1_OCTET_STRING* wanted = X509_get0_authority_key_id(certificate);
    const ASN1_OCTET_STRING* present = X509_get0_subject_key_id(issuer);
    return X509_NAME_cmp(X509_get_issuer_name(certificate), X509_get_subject_name(issuer)) == 0 ||
           (wanted != nullptr && present != nullptr && ASN1_OCTET_STRING_cmp(wanted, present) == 0);
}

/// Whether none of those that a certificate names as its issuer has signed it. One whose issuer is not in the file is
/// taken as it is.
bool lacksSignature(X509* certificate, const Certificates& certificates) {
    bool isNamed = false;
    for (const auto& [issuer, label] : certificates) {
        if (namesIssuer(certificate, issuer.get())) {
            if (hasSigned(issuer.get(), certificate)) {
                return false;
            }
            isNamed = true;
        }
    }
    return isNamed;
}

CertificatePtr shared(X509* certificate) {
    if (X509_up_ref(certificate) != 1) {
        throw std::bad_alloc();
    }
    return CertificatePtr(certificate);
}

/// The certificates above this one, in order, as far as the file has them.
std::vector<CertificatePtr> chainOf(X509* certificate, const Certificates& certificates) {
    std::vector<CertificatePtr> chain;
    while (chain.size() < certificates.size() && X509_self_signed(certificate, 0) != 1) {
        certificate = issuerOf(certificate, certificates);
        if (certificate == nullptr) {
            break;
        }
        chain.push_back(shared(certificate));
    }
    return chain;
}

/// CA certificates, and those that sign themselves. A damaged one must not be trusted in place of what it was.
std::vector<CertificatePtr> findTrusted(const KeyFileContents& contents) {
    std::vector<CertificatePtr> trusted;
    for (const auto& [certificate, label] : contents.certificates) {
        if (X509_check_ca(certificate.get()) == 0 && X509_self_signed(certificate.get(), 0) != 1) {
            continue;
        }
        if (!contents.isSealed && lacksSignature(certificate.get(), contents.certificates)) {
            throw UnusableFile{
                "holds a certificate that its issuer in the file has not signed: " + subjectText(certificate.get()) +
                "; it is damaged, or the issuer is another one of that name"};
        }
        trusted.push_back(shared(certificate.get()));
    }
    if (trusted.empty()) {
        throw UnusableFile{
            "holds no CA certificate to trust; add that of the CA which has signed the servers' certificates"};
    }
    return trusted;
}

/// Takes the identity of this label; null: the only one, if there is one.
KeyFile choose(const KeyFileContents& contents, const char* label) {
    std::vector<Identity> identities = findIdentities(contents);
    if (identities.empty() && !contents.keys.empty()) {
        throw UnusableFile{"holds a private key, but not its certificate"};
    }
    KeyFile result;
    result.trusted = findTrusted(contents);
    std::string labels;
    for (const Identity& identity : identities) {
        labels += (labels.empty() ? "" : ", ") + identity.label;
    }
    if (label != nullptr) {
        std::erase_if(identities, [label](const Identity& identity) { return identity.label != label; });
    }
    if (identities.size() > 1) {
        throw UnusableFile{label != nullptr
                               ? "holds several identities labelled " + std::string(label)
                               : "holds several identities, and no label (ssl-keyfile-label) chooses one of them: " +
                                     labels};
    }
    if (identities.empty() && label != nullptr) {
        throw UnusableFile{"holds no identity labelled " + std::string(label) +
                           "; labels in it: " + (labels.empty() ? "none" : labels)};
    }
    if (!identities.empty()) {
        const Identity& identity = identities.front();
        if (EVP_PKEY_up_ref(identity.key) != 1) {
            throw std::bad_alloc();
        }
        result.key.reset(identity.key);
        result.certificate = shared(identity.certificate);
        result.chain = chainOf(identity.certificate, contents.certificates);
    }
    return result;
}

}  // namespace

KeyFile loadKeyFile(const char* path, const char* stashPath, const char* label) {
    ERR_clear_error();  // what reads the file tells from OpenSSL's queue of errors why it cannot
    std::string called;
    try {
        SecretBuffer password;
        if (stashPath != nullptr) {
            called = std::string("the stash file ") + stashPath;
            password = readPasswordFile(stashPath);
        }
        called = std::string("the key file ") + path;
        KeyFile result = choose(readContents(path, password), label);
        ERR_clear_error();  // X509_check_private_key leaves one for each key that is not the certificate's
        return result;
    } catch (const UnusableFile& file) {
        ERR_clear_error();
        throw Failure{kStatusKeyFile, called + " " + file.why};
    }
}

}  // namespace olmdsess
