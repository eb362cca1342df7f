#include "admin/client/tls/KeyFileContents.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <new>
#include <string_view>

#include "runtime/DistinguishedName.h"

namespace olmdsess {

namespace {

/// Whether one of the errors in OpenSSL's queue, which is emptied, is an algorithm that no provider offers.
bool failedOfAlgorithm() {
    bool found = false;
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        const int library = ERR_GET_LIB(error);
        const int reason = ERR_GET_REASON(error);
        found = found ||
                (library == ERR_LIB_EVP && (reason == ERR_R_UNSUPPORTED || reason == EVP_R_UNSUPPORTED_ALGORITHM ||
                                            reason == EVP_R_UNKNOWN_PBE_ALGORITHM)) ||
                (library == ERR_LIB_PKCS12 && reason == PKCS12_R_UNKNOWN_DIGEST_ALGORITHM);
    }
    return found;
}

using Pkcs12Ptr = std::unique_ptr<PKCS12, OpensslDeleter<PKCS12_free>>;
using Pkcs8Ptr = std::unique_ptr<PKCS8_PRIV_KEY_INFO, OpensslDeleter<PKCS8_PRIV_KEY_INFO_free>>;
using SafesPtr = std::unique_ptr<STACK_OF(PKCS7),
                                 OpensslDeleter<[](STACK_OF(PKCS7) * safes) { sk_PKCS7_pop_free(safes, PKCS7_free); }>>;
using BagsPtr = std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), OpensslDeleter<[](STACK_OF(PKCS12_SAFEBAG) * bags) {
                                    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
                                }>>;
using TextPtr = std::unique_ptr<char, OpensslDeleter<[](char* text) { OPENSSL_free(text); }>>;

/// Returns the friendly name of a bag as UTF-8. PKCS#12 stores it as big-endian UTF-16. Empty: it has none.
std::string labelOf(const PKCS12_SAFEBAG* bag) {
    const ASN1_TYPE* name = PKCS12_SAFEBAG_get0_attr(bag, NID_friendlyName);
    if (name == nullptr || name->type != V_ASN1_BMPSTRING) {
        return {};
    }
    const ASN1_STRING* characters = name->value.bmpstring;
    std::vector<unsigned char> padded(characters->data, characters->data + characters->length);
    padded.resize(padded.size() + 2);  // OpenSSL converts no last character from U+0800 up
    const TextPtr text(OPENSSL_uni2utf8(padded.data(), static_cast<int>(padded.size())));
    return text == nullptr ? "" : text.get();
}

/// PKCS#12 (RFC 7292), opened bag by bag: OSSL_STORE and PKCS12_parse give the first private key alone, and do not tell
/// whether it was encrypted. Labels are the friendly names.
class Pkcs12Reader {
  public:
    explicit Pkcs12Reader(const SecretBuffer& password)
        : m_hasPassword(!password.empty()),
          m_password(m_hasPassword ? password.data() : ""),
          m_length(static_cast<int>(password.size())) {}

    KeyFileContents read(const SecretBuffer& bytes) {
        const auto* const start = reinterpret_cast<const unsigned char*>(bytes.data());
        const unsigned char* end = start;
        const Pkcs12Ptr file(d2i_PKCS12(nullptr, &end, static_cast<long>(bytes.size())));
        const SafesPtr safes(file == nullptr ? nullptr : PKCS12_unpack_authsafes(file.get()));
        if (safes == nullptr) {
            throw UnusableFile{"is damaged, or neither PKCS#12 nor PEM"};
        }
        if (static_cast<std::size_t>(end - start) != bytes.size()) {
            throw UnusableFile{"cannot be used: something follows its end, from byte " +
                               std::to_string(end - start + 1) + " on"};
        }
        checkMac(file.get());
        for (int index = 0; index < sk_PKCS7_num(safes.get()); ++index) {
            PKCS7* safe = sk_PKCS7_value(safes.get(), index);
            const bool isPlain = PKCS7_type_is_data(safe);
            const BagsPtr bags(isPlain ? PKCS12_unpack_p7data(safe)
                                       : PKCS12_unpack_p7encdata(safe, m_password, m_length));
            if (!isPlain || bags == nullptr) {
                noteOpened(bags != nullptr);
            }
            readBags(bags.get());
        }
        if (!m_isIntact || m_staysShut) {
            failToOpen();
        }
        return std::move(m_contents);
    }

  private:
    [[noreturn]] void failOfBag(const std::string& why) const {
        if (!m_isIntact) {
            failToOpen();
        }
        throw UnusableFile{why + " (bag " + std::to_string(m_bag) + ")"};
    }

    /// A failed check means a wrong password or a damaged file. If the password opens a part, the file is damaged.
    [[noreturn]] void failToOpen() const {
        throw UnusableFile{
            m_isIntact && failedOfAlgorithm()
                ? "is encrypted in a way that OpenSSL 3 no longer reads; this converts it: openssl "
                  "pkcs12 -legacy -nodes -in FILE | openssl pkcs12 -export -out new.p12"
            : !m_isIntact && m_opens
                ? "is damaged: the password opens it, but its contents are not as they were"
                : "cannot be decrypted: the stash file's password is not its password, or it is damaged"};
    }

    /// No password and an empty one are different to PKCS#12, but not to people.
    void checkMac(PKCS12* file) {
        if (PKCS12_mac_present(file) == 0) {
            return;
        }
        m_contents.isSealed = m_hasPassword;
        m_isIntact = PKCS12_verify_mac(file, m_password, m_length) == 1;
        if (!m_isIntact && !m_hasPassword && PKCS12_verify_mac(file, nullptr, 0) == 1) {
            m_isIntact = true;
            m_password = nullptr;
        }
        if (!m_isIntact && failedOfAlgorithm()) {
            throw UnusableFile{"is protected by a check that this OpenSSL cannot make"};
        }
    }

    /// Whether the password has opened a part.
    void noteOpened(bool success) { (success ? m_opens : m_staysShut) = true; }

    void readBags(const STACK_OF(PKCS12_SAFEBAG) * bags) {
        for (int index = 0; index < sk_PKCS12_SAFEBAG_num(bags); ++index) {
            ++m_bag;
            readBag(sk_PKCS12_SAFEBAG_value(bags, index));
        }
    }

    void readBag(const PKCS12_SAFEBAG* bag) {
        switch (PKCS12_SAFEBAG_get_nid(bag)) {
            case NID_keyBag:
                m_contents.hasPlainKey = true;
                take(PrivateKeyPtr(EVP_PKCS82PKEY(PKCS12_SAFEBAG_get0_p8inf(bag))), m_contents.keys, bag);
                break;
            case NID_pkcs8ShroudedKeyBag: {
                m_contents.hasPlainKey = m_contents.hasPlainKey || !m_hasPassword;
                const Pkcs8Ptr plain(PKCS12_decrypt_skey(bag, m_password, m_length));
                noteOpened(plain != nullptr);
                if (plain != nullptr) {
                    take(PrivateKeyPtr(EVP_PKCS82PKEY(plain.get())), m_contents.keys, bag);
                }
                break;
            }
            case NID_certBag:
                take(CertificatePtr(PKCS12_SAFEBAG_get1_cert(bag)), m_contents.certificates, bag);
                break;
            case NID_safeContentsBag:
                readBags(PKCS12_SAFEBAG_get0_safes(bag));
                break;
            default:
                failOfBag("cannot be used: it holds something that is not understood");
        }
    }

    template <class Owner>
    void take(Owner object, std::vector<KeyFileContents::Labelled<Owner>>& objects, const PKCS12_SAFEBAG* bag) {
        if (object == nullptr) {
            failOfBag("holds a certificate or private key that cannot be read");
        }
        objects.push_back({std::move(object), labelOf(bag)});
    }

    const bool m_hasPassword;
    const char* m_password;
    const int m_length;        ///< of the password
    bool m_isIntact = true;    ///< as its check says, if it has one
    bool m_opens = false;      ///< the password opens a part of it
    bool m_staysShut = false;  ///< it does not open another
    int m_bag = 0;
    KeyFileContents m_contents;
};

constexpr std::string_view kBegin = "-----BEGIN ";
constexpr std::string_view kDashes = "-----";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
/// A line of base64 of at least this length, outside a block, is taken for the rest of a damaged block, not for text.
constexpr std::size_t kLongestWord = 24;

bool isBase64(std::string_view text) {
    return text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") ==
           std::string_view::npos;
}

/// Gives OpenSSL the password instead of letting it ask for one.
int givePassword(char* buffer, int size, int, void* password) {
    const auto& text = *static_cast<const SecretBuffer*>(password);
    if (text.size() > static_cast<std::size_t>(size)) {
        return -1;
    }
    std::copy(text.begin(), text.end(), buffer);
    return static_cast<int>(text.size());
}

/// PEM (RFC 7468) with one private key at most; a certificate's label is its common name. Between blocks there may be
/// text, as openssl writes it there, but none that looks like the rest of a block.
class PemReader {
  public:
    PemReader(std::string_view text, SecretBuffer& password) : m_rest(text), m_password(password) {}

    KeyFileContents read() {
        if (m_rest.starts_with(kByteOrderMark)) {
            m_rest.remove_prefix(kByteOrderMark.size());
        }
        bool found = false;
        while (nextLine()) {
            if (m_line.starts_with(kBegin) && m_line.ends_with(kDashes)) {
                readBlock();
                found = true;
            } else if (m_line.find("---") != std::string_view::npos ||
                       (m_line.size() >= kLongestWord && isBase64(m_line))) {
                fail("holds something that is not understood", m_number);
            }
        }
        if (!found) {
            throw UnusableFile{"is neither PKCS#12 nor PEM"};
        }
        return std::move(m_contents);
    }

  private:
    [[noreturn]] static void fail(const std::string& why, int line) {
        throw UnusableFile{why + " (line " + std::to_string(line) + ")"};
    }

    /// Takes a line, without its end and blanks at it.
    bool nextLine() {
        if (m_rest.empty()) {
            return false;
        }
        const std::size_t length = std::min(m_rest.find('\n'), m_rest.size());
        m_line = m_rest.substr(0, length);
        m_line = m_line.substr(0, m_line.find_last_not_of(" \t\r") + 1);
        m_rest.remove_prefix(std::min(length + 1, m_rest.size()));
        ++m_number;
        return true;
    }

    /// Takes the lines up to END, and what they hold.
    void readBlock() {
        const char* const start = m_line.data();
        const int line = m_number;
        const std::string_view label = m_line.substr(kBegin.size(), m_line.size() - kBegin.size() - kDashes.size());
        const std::string end = "-----END " + std::string(label) + "-----";
        bool isEncrypted = label == PEM_STRING_PKCS8;
        while (m_line != end) {
            if (!nextLine()) {
                fail("is damaged: the end is missing of what begins", line);
            }
            const bool isHeader = m_line.starts_with("Proc-Type:") || m_line.starts_with("DEK-Info:");
            if (!isHeader && m_line != end && !isBase64(m_line)) {
                fail("is damaged", m_number);
            }
            isEncrypted = isEncrypted || isHeader;
        }
        const BioPtr block(BIO_new_mem_buf(start, static_cast<int>(m_line.data() + m_line.size() - start)));
        if (block == nullptr) {
            throw std::bad_alloc();
        }
        if (label == PEM_STRING_X509 || label == PEM_STRING_X509_OLD) {
            takeCertificate(block.get(), line);
        } else if (label == PEM_STRING_PKCS8 || label == PEM_STRING_PKCS8INF || label == PEM_STRING_RSA ||
                   label == PEM_STRING_ECPRIVATEKEY || label == PEM_STRING_DSA) {
            takeKey(block.get(), line, isEncrypted);
        } else if (label != PEM_STRING_ECPARAMETERS) {  // which openssl writes before such a key
            fail("holds something that is not understood: " + std::string(label), line);
        }
    }

    void takeCertificate(BIO* block, int line) {
        CertificatePtr certificate(PEM_read_bio_X509(block, nullptr, givePassword, &m_password));
        if (certificate == nullptr) {
            fail("holds a certificate that cannot be read", line);
        }
        const std::string label = commonName(certificate.get());
        m_contents.certificates.push_back({std::move(certificate), label});
    }

    void takeKey(BIO* block, int line, bool isEncrypted) {
        PrivateKeyPtr key(PEM_read_bio_PrivateKey(block, nullptr, givePassword, &m_password));
        if (key == nullptr) {
            fail(!isEncrypted          ? "holds a private key that is damaged"
                 : failedOfAlgorithm() ? "holds a private key that is encrypted in a way that OpenSSL 3 no longer reads"
                                       : "holds a private key that cannot be read: it is damaged, or the stash file's "
                                         "password is not its password",
                 line);
        }
        m_contents.hasPlainKey = m_contents.hasPlainKey || !isEncrypted || m_password.empty();
        if (m_contents.keys.empty()) {
            m_contents.keys.push_back({std::move(key), ""});
        } else if (EVP_PKEY_eq(m_contents.keys.front().object.get(), key.get()) != 1) {
            fail("holds several private keys; in PEM there can be only one", line);
        }
    }

    std::string_view m_rest;
    std::string_view m_line;
    int m_number = 0;
    SecretBuffer& m_password;
    KeyFileContents m_contents;
};

}  // namespace

KeyFileContents readKeyFileContents(const SecretBuffer& bytes, SecretBuffer& password) {
    // DER of this size begins with a sequence whose length takes more than one byte.
    const bool isDer = bytes.size() > 1 && bytes[0] == '\x30' && (bytes[1] & '\x80') != 0;
    return isDer ? Pkcs12Reader(password).read(bytes) : PemReader({bytes.data(), bytes.size()}, password).read();
}

}  // namespace olmdsess
