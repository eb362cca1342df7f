#include "admin/client/KeyFileContents.h"

#include <openssl/err.h>

#include <algorithm>
#include <limits>

#include "admin/client/TlsProblem.h"
#include "runtime/qel_messages.h"

namespace olmdsess {

namespace {

/// A few seconds of it. OpenSSL's own files ask for 2,048 and careful ones for a million.
constexpr double kMaxIterations = 10'000'000;

template <class Item, class Equals>
void addOnce(std::vector<Item>& items, Item item, Equals equals) {
    const auto found = std::find_if(items.begin(), items.end(), [&](const Item& other) { return equals(other, item); });
    if (found == items.end()) {
        items.push_back(std::move(item));
    } else if (found->label.empty()) {
        found->label = item.label;
    }
}

double valueOf(const ASN1_INTEGER* integer) {
    std::int64_t value = 0;
    const bool sensible = ASN1_INTEGER_get_int64(&value, integer) == 1 && value >= 0;
    return sensible ? static_cast<double>(value) : std::numeric_limits<double>::infinity();
}

/// The parameters of an algorithm, null when they are not of that type.
template <auto release, class Parameters>
std::unique_ptr<Parameters, OpensslDeleter<release>> unpack(const ASN1_STRING* sequence, const ASN1_ITEM* item) {
    return std::unique_ptr<Parameters, OpensslDeleter<release>>(
        static_cast<Parameters*>(ASN1_item_unpack(sequence, item)));
}

double iterationsOf(const X509_ALGOR* algorithm) {
    const ASN1_OBJECT* kind = nullptr;
    const void* value = nullptr;
    int type = V_ASN1_UNDEF;
    X509_ALGOR_get0(&kind, &type, &value, algorithm);
    if (type != V_ASN1_SEQUENCE) {
        return 0;
    }
    const auto* sequence = static_cast<const ASN1_STRING*>(value);
    switch (OBJ_obj2nid(kind)) {
        case NID_pbes2: {
            const auto both = unpack<PBE2PARAM_free, PBE2PARAM>(sequence, ASN1_ITEM_rptr(PBE2PARAM));
            return both == nullptr ? 0 : iterationsOf(both->keyfunc);
        }
        case NID_id_pbkdf2: {
            const auto derivation = unpack<PBKDF2PARAM_free, PBKDF2PARAM>(sequence, ASN1_ITEM_rptr(PBKDF2PARAM));
            return derivation == nullptr ? 0 : valueOf(derivation->iter);
        }
        case NID_id_scrypt: {
            const auto cost = unpack<SCRYPT_PARAMS_free, SCRYPT_PARAMS>(sequence, ASN1_ITEM_rptr(SCRYPT_PARAMS));
            return cost == nullptr ? 0
                                   : valueOf(cost->costParameter) * valueOf(cost->blockSize) *
                                         valueOf(cost->parallelizationParameter);
        }
        default: {
            const auto derivation = unpack<PBEPARAM_free, PBEPARAM>(sequence, ASN1_ITEM_rptr(PBEPARAM));
            return derivation == nullptr ? 0 : valueOf(derivation->iter);
        }
    }
}

bool isUnsupported(unsigned long error) {
    const int library = ERR_GET_LIB(error);
    const int reason = ERR_GET_REASON(error);
    return (library == ERR_LIB_EVP && (reason == ERR_R_UNSUPPORTED || reason == EVP_R_UNSUPPORTED_ALGORITHM ||
                                       reason == EVP_R_UNKNOWN_PBE_ALGORITHM)) ||
           (library == ERR_LIB_PKCS12 && reason == PKCS12_R_UNKNOWN_DIGEST_ALGORITHM);
}

}  // namespace

void KeyFileContents::add(CertificatePtr certificate, const std::string& label) {
    addOnce(certificates, Certificate{std::move(certificate), label}, [](const Certificate& left, const auto& right) {
        return X509_cmp(left.certificate.get(), right.certificate.get()) == 0;
    });
}

void KeyFileContents::add(PrivateKeyPtr key, const std::string& label) {
    addOnce(keys, Key{std::move(key), label},
            [](const Key& left, const Key& right) { return EVP_PKEY_eq(left.key.get(), right.key.get()) == 1; });
}

void failOfKeyFile(const std::string& text) {
    ERR_clear_error();
    throw TlsProblem{kStatusKeyFile, text};
}

bool failedOfAlgorithm() {
    bool found = false;
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        found = found || isUnsupported(error);
    }
    return found;
}

void DerivationWork::add(const X509_ALGOR* algorithm) {
    add(algorithm == nullptr ? 0 : iterationsOf(algorithm));
    ERR_clear_error();  // of parameters that are no such thing
}

void DerivationWork::add(const ASN1_INTEGER* iterations) {
    add(iterations == nullptr ? 1 : valueOf(iterations));
}

void DerivationWork::add(double iterations) {
    m_iterations += iterations;
    if (!(m_iterations <= kMaxIterations)) {
        failOfKeyFile("the key file " + m_path +
                      " cannot be used: it asks for more than 10,000,000 iterations over its password");
    }
}

}  // namespace olmdsess
