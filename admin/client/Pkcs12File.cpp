#include "admin/client/Pkcs12File.h"

#include <openssl/err.h>

namespace olmdsess {

namespace {

using SafesPtr = std::unique_ptr<STACK_OF(PKCS7),
                                 OpensslDeleter<[](STACK_OF(PKCS7) * safes) { sk_PKCS7_pop_free(safes, PKCS7_free); }>>;
using BagsPtr = std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), OpensslDeleter<[](STACK_OF(PKCS12_SAFEBAG) * bags) {
                                    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
                                }>>;

void appendUtf8(std::string& text, char32_t character) {
    const auto tail = [character](int shift) { return static_cast<char>(0x80 | (character >> shift & 0x3F)); };
    if (character < 0x80) {
        text += static_cast<char>(character);
    } else if (character < 0x800) {
        text += {static_cast<char>(0xC0 | character >> 6), tail(0)};
    } else if (character < 0x10000) {
        text += {static_cast<char>(0xE0 | character >> 12), tail(6), tail(0)};
    } else {
        text += {static_cast<char>(0xF0 | character >> 18), tail(12), tail(6), tail(0)};
    }
}

/// UTF-16, big-endian, as UTF-8. OpenSSL's own conversion loses a last character from U+0800 up.
std::string fromUtf16(const unsigned char* bytes, int size) {
    std::string text;
    const auto unit = [&](int at) { return static_cast<char32_t>(at + 1 < size ? bytes[at] << 8 | bytes[at + 1] : 0); };
    for (int at = 0; at + 1 < size; at += 2) {
        const char32_t first = unit(at);
        const char32_t second = unit(at + 2);
        if (first >> 10 == 0x36 && second >> 10 == 0x37) {
            appendUtf8(text, 0x10000 + ((first & 0x3FF) << 10 | (second & 0x3FF)));
            at += 2;
        } else {
            appendUtf8(text, first >> 11 == 0x1B ? 0xFFFD : first);
        }
    }
    return text;
}

std::string labelOf(const PKCS12_SAFEBAG* bag) {
    const ASN1_TYPE* name = PKCS12_SAFEBAG_get0_attr(bag, NID_friendlyName);
    return name == nullptr || name->type != V_ASN1_BMPSTRING
               ? ""
               : fromUtf16(name->value.bmpstring->data, name->value.bmpstring->length);
}

class Pkcs12Reader {
  public:
    Pkcs12Reader(const std::string& path, const SecretBuffer& password)
        : m_called("the key file " + path), m_path(path), m_password(password), m_work(m_path) {}

    KeyFileContents read(PKCS12* file) {
        const SafesPtr safes(PKCS12_unpack_authsafes(file));
        if (safes == nullptr) {
            failOfKeyFile(m_called + " is damaged");
        }
        checkPassword(file, safes.get());
        for (int index = 0; index < sk_PKCS7_num(safes.get()); ++index) {
            const BagsPtr bags = openSafe(sk_PKCS7_value(safes.get(), index), index + 1);
            if (bags == nullptr) {
                failToDecrypt();
            }
            readBags(bags.get());
        }
        return std::move(m_contents);
    }

  private:
    /// No password and an empty one are different to PKCS#12, but not to people.
    void checkPassword(PKCS12* file, const STACK_OF(PKCS7) * safes) {
        m_passwordText = m_password.empty() ? "" : m_password.data();
        m_passwordLength = static_cast<int>(m_password.size());
        if (PKCS12_mac_present(file) == 0) {
            return;
        }
        const ASN1_INTEGER* iterations = nullptr;
        PKCS12_get0_mac(nullptr, nullptr, nullptr, &iterations, file);
        m_work.add(iterations);
        m_contents.isSealed = !m_password.empty();
        if (PKCS12_verify_mac(file, m_passwordText, m_passwordLength) == 1) {
            return;
        }
        if (failedOfAlgorithm()) {
            failOfKeyFile(m_called + " is protected by a check that this OpenSSL cannot make");
        }
        if (!m_password.empty() || PKCS12_verify_mac(file, nullptr, 0) != 1) {
            failOfMac(safes);
        }
        m_passwordText = nullptr;
    }

    /// A check that fails is of a wrong password or of damage; a part that the password opens tells.
    [[noreturn]] void failOfMac(const STACK_OF(PKCS7) * safes) {
        for (int index = 0; index < sk_PKCS7_num(safes); ++index) {
            const PKCS7* safe = sk_PKCS7_value(safes, index);
            const BagsPtr bags = openSafe(safe, index + 1);
            if (bags != nullptr && (OBJ_obj2nid(safe->type) == NID_pkcs7_encrypted || opensKey(bags.get()))) {
                failOfKeyFile(m_called + " is damaged: the password opens it, but its contents are not as they were");
            }
        }
        failOfPassword();
    }

    bool opensKey(const STACK_OF(PKCS12_SAFEBAG) * bags) {
        for (int index = 0; index < sk_PKCS12_SAFEBAG_num(bags); ++index) {
            const PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(bags, index);
            if (PKCS12_SAFEBAG_get_nid(bag) == NID_pkcs8ShroudedKeyBag && decryptKey(bag) != nullptr) {
                return true;
            }
        }
        return false;
    }

    [[noreturn]] void failOfPassword() const {
        failOfKeyFile(m_called +
                      " cannot be decrypted: the stash file's password is not its password, or it is damaged");
    }

    [[noreturn]] void failToDecrypt() const {
        if (failedOfAlgorithm()) {
            failOfKeyFile(m_called +
                          " is encrypted in a way that OpenSSL 3 no longer reads; this converts it: openssl pkcs12 "
                          "-legacy -nodes -in " +
                          m_path + " | openssl pkcs12 -export -out new.p12");
        }
        failOfPassword();
    }

    /// The bags of a part; null when it cannot be decrypted.
    BagsPtr openSafe(const PKCS7* safe, int number) {
        // The unpacking functions only read what they are given.
        auto* writable = const_cast<PKCS7*>(safe);
        switch (OBJ_obj2nid(safe->type)) {
            case NID_pkcs7_data: {
                BagsPtr bags(PKCS12_unpack_p7data(writable));
                if (bags == nullptr) {
                    failOfKeyFile(m_called + " is damaged: its part " + std::to_string(number) + " cannot be read");
                }
                return bags;
            }
            case NID_pkcs7_encrypted:
                m_work.add(safe->d.encrypted->enc_data->algorithm);
                return BagsPtr(PKCS12_unpack_p7encdata(writable, m_passwordText, m_passwordLength));
            default:
                failOfKeyFile(m_called + " cannot be used: its part " + std::to_string(number) +
                              " is of a kind that is not understood");
        }
    }

    Pkcs8Ptr decryptKey(const PKCS12_SAFEBAG* bag) {
        const X509_ALGOR* algorithm = nullptr;
        X509_SIG_get0(PKCS12_SAFEBAG_get0_pkcs8(bag), &algorithm, nullptr);
        m_work.add(algorithm);
        return Pkcs8Ptr(PKCS12_decrypt_skey(bag, m_passwordText, m_passwordLength));
    }

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
                takeKey(EVP_PKCS82PKEY(PKCS12_SAFEBAG_get0_p8inf(bag)), bag);
                break;
            case NID_pkcs8ShroudedKeyBag: {
                const Pkcs8Ptr plain = decryptKey(bag);
                if (plain == nullptr) {
                    failToDecrypt();
                }
                m_contents.hasPlainKey = m_contents.hasPlainKey || m_password.empty();
                takeKey(EVP_PKCS82PKEY(plain.get()), bag);
                break;
            }
            case NID_certBag: {
                CertificatePtr certificate(PKCS12_SAFEBAG_get1_cert(bag));
                if (certificate == nullptr) {
                    failOfBag("holds a certificate that cannot be read");
                }
                m_contents.add(std::move(certificate), labelOf(bag));
                break;
            }
            case NID_safeContentsBag:
                readBags(PKCS12_SAFEBAG_get0_safes(bag));
                break;
            default:
                failOfBag("cannot be used: it holds something that is not understood");
        }
    }

    void takeKey(EVP_PKEY* key, const PKCS12_SAFEBAG* bag) {
        PrivateKeyPtr owner(key);
        if (key == nullptr) {
            failOfBag("holds a private key that cannot be read");
        }
        m_contents.add(std::move(owner), labelOf(bag));
    }

    [[noreturn]] void failOfBag(const char* why) const {
        failOfKeyFile(m_called + " " + why + " (bag " + std::to_string(m_bag) + ")");
    }

    const std::string m_called;
    const std::string& m_path;
    const SecretBuffer& m_password;
    DerivationWork m_work;
    const char* m_passwordText = nullptr;
    int m_passwordLength = 0;
    int m_bag = 0;
    KeyFileContents m_contents;
};

}  // namespace

KeyFileContents readPkcs12(const std::string& path, const SecretBuffer& bytes, const SecretBuffer& password) {
    const auto* const start = reinterpret_cast<const unsigned char*>(bytes.data());
    const unsigned char* end = start;
    const Pkcs12Ptr file(d2i_PKCS12(nullptr, &end, static_cast<long>(bytes.size())));
    if (file == nullptr) {
        failOfKeyFile("the key file " + path + " is damaged, or neither PKCS#12 nor PEM");
    }
    if (static_cast<std::size_t>(end - start) != bytes.size()) {
        failOfKeyFile("the key file " + path + " cannot be used: something follows its end, from byte " +
                      std::to_string(end - start + 1) + " on");
    }
    return Pkcs12Reader(path, password).read(file.get());
}

}  // namespace olmdsess
