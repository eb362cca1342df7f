#include "admin/client/KeyFile.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "admin/client/DistinguishedName.h"
#include "admin/client/TlsProblem.h"
#include "runtime/SecretBuffer.h"
#include "runtime/qel_messages.h"

namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{1024} * 1024;

[[noreturn]] void fail(const std::string& text) {
    ERR_clear_error();
    throw TlsProblem{kStatusKeyFile, text};
}

class FileDescriptor {
  public:
    explicit FileDescriptor(int number) : m_number(number) {}
    ~FileDescriptor() {
        if (m_number >= 0) {
            close(m_number);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int number() const { return m_number; }

  private:
    int m_number;
};

/// Why a file that others could have written or read is no place for a password, or null.
const char* distrust(const struct stat& status) {
    return (status.st_uid != geteuid() && status.st_uid != 0) ? "it belongs to another user"
           : (status.st_mode & (S_IRWXG | S_IRWXO)) != 0
               ? "others than its owner have permissions on it (chmod 600 takes them away)"
               : nullptr;
}

enum class FileUse { kKeyFile, kStash };

/// The bytes of a regular file. A FIFO must not hang the open, so that it never waits.
SecretBuffer readFile(const char* path, FileUse use) {
    const std::string called = std::string(use == FileUse::kStash ? "the stash file " : "the key file ") + path;
    const int noFollow = use == FileUse::kStash ? O_NOFOLLOW : 0;
    const FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | noFollow));
    if (file.number() < 0) {
        fail(called + " cannot be opened: " + (errno == ELOOP ? "it is a symbolic link" : std::strerror(errno)));
    }
    struct stat status {};
    if (fstat(file.number(), &status) != 0 || !S_ISREG(status.st_mode)) {
        fail(called + " cannot be used: it is not a regular file");
    }
    if (use == FileUse::kStash && distrust(status) != nullptr) {
        fail(called + " cannot be used: " + distrust(status));
    }
    SecretBuffer bytes(kMaxFileBytes + 1);
    std::size_t size = 0;
    while (size < bytes.size()) {
        const ssize_t count = read(file.number(), bytes.data() + size, bytes.size() - size);
        if (count < 0) {
            fail(called + " cannot be read: " + std::strerror(errno));
        }
        if (count == 0) {
            break;
        }
        size += static_cast<std::size_t>(count);
    }
    if (size > kMaxFileBytes) {
        fail(called + " cannot be used: it is longer than 1 MiB");
    }
    bytes.resize(size);
    return bytes;
}

/// The first line, without its end.
SecretBuffer readStash(const char* path) {
    SecretBuffer bytes = readFile(path, FileUse::kStash);
    bytes.resize(static_cast<std::size_t>(std::find(bytes.begin(), bytes.end(), '\n') - bytes.begin()));
    if (!bytes.empty() && bytes.back() == '\r') {
        bytes.pop_back();
    }
    return bytes;
}

struct LabelledCertificate {
    CertificatePtr certificate;
    std::string label;
};

struct LabelledKey {
    PrivateKeyPtr key;
    std::string label;
};

/// What a file holds, before it is known what belongs together.
struct Contents {
    std::vector<LabelledCertificate> certificates;
    std::vector<LabelledKey> keys;
};

bool isUnsupported(unsigned long error) {
    const int reason = ERR_GET_REASON(error);
    return reason == ERR_R_UNSUPPORTED ||
           (ERR_GET_LIB(error) == ERR_LIB_EVP &&
            (reason == EVP_R_UNSUPPORTED_ALGORITHM || reason == EVP_R_UNKNOWN_PBE_ALGORITHM));
}

/// Whether one of the errors in OpenSSL's queue, which is emptied, is an algorithm that no provider offers.
bool failedOfAlgorithm() {
    bool found = false;
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        found = found || isUnsupported(error);
    }
    return found;
}

class Pkcs12Reader {
  public:
    Pkcs12Reader(const char* path, const SecretBuffer& password) : m_path(path), m_password(password) {}

    Contents read(PKCS12* file) {
        checkPassword(file);
        const SafesPtr safes(PKCS12_unpack_authsafes(file));
        for (int index = 0; index < sk_PKCS7_num(safes.get()); ++index) {
            PKCS7* safe = sk_PKCS7_value(safes.get(), index);
            const int type = OBJ_obj2nid(safe->type);
            if (type != NID_pkcs7_data && type != NID_pkcs7_encrypted) {
                continue;
            }
            const BagsPtr bags(type == NID_pkcs7_data
                                   ? PKCS12_unpack_p7data(safe)
                                   : PKCS12_unpack_p7encdata(safe, m_passwordText, m_passwordLength));
            if (bags == nullptr) {
                failToDecrypt();
            }
            readBags(bags.get());
        }
        return std::move(m_contents);
    }

  private:
    using SafesPtr =
        std::unique_ptr<STACK_OF(PKCS7),
                        OpensslDeleter<[](STACK_OF(PKCS7) * safes) { sk_PKCS7_pop_free(safes, PKCS7_free); }>>;
    using BagsPtr = std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), OpensslDeleter<[](STACK_OF(PKCS12_SAFEBAG) * bags) {
                                        sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
                                    }>>;

    [[noreturn]] void failToDecrypt() const {
        if (failedOfAlgorithm()) {
            fail("the key file " + m_path +
                 " is encrypted in a way that OpenSSL 3 no longer reads; this converts it: openssl pkcs12 -legacy "
                 "-nodes -in " +
                 m_path + " | openssl pkcs12 -export -out new.p12");
        }
        fail("the key file " + m_path + " cannot be decrypted: the stash file's password is not its password");
    }

    /// No password and an empty one are different to PKCS#12, but not to people.
    void checkPassword(PKCS12* file) {
        m_passwordText = m_password.empty() ? "" : m_password.data();
        m_passwordLength = static_cast<int>(m_password.size());
        if (PKCS12_mac_present(file) == 0 || PKCS12_verify_mac(file, m_passwordText, m_passwordLength) == 1) {
            return;
        }
        if (!m_password.empty() || PKCS12_verify_mac(file, nullptr, 0) != 1) {
            failToDecrypt();
        }
        m_passwordText = nullptr;
    }

    void readBags(const STACK_OF(PKCS12_SAFEBAG) * bags) {
        for (int index = 0; index < sk_PKCS12_SAFEBAG_num(bags); ++index) {
            readBag(sk_PKCS12_SAFEBAG_value(bags, index));
        }
    }

    void readBag(PKCS12_SAFEBAG* bag) {
        switch (PKCS12_SAFEBAG_get_nid(bag)) {
            case NID_keyBag:
                takeKey(EVP_PKCS82PKEY(PKCS12_SAFEBAG_get0_p8inf(bag)), bag);
                break;
            case NID_pkcs8ShroudedKeyBag: {
                const Pkcs8Ptr plain(PKCS12_decrypt_skey(bag, m_passwordText, m_passwordLength));
                if (plain == nullptr) {
                    failToDecrypt();
                }
                takeKey(EVP_PKCS82PKEY(plain.get()), bag);
                break;
            }
            case NID_certBag:
                if (X509* certificate = PKCS12_SAFEBAG_get1_cert(bag)) {
                    m_contents.certificates.push_back({CertificatePtr(certificate), labelOf(bag)});
                }
                break;
            case NID_safeContentsBag:
                readBags(PKCS12_SAFEBAG_get0_safes(bag));
                break;
            default:
                break;
        }
    }

    void takeKey(EVP_PKEY* key, PKCS12_SAFEBAG* bag) {
        PrivateKeyPtr owner(key);
        if (key == nullptr) {
            fail("the key file " + m_path + " holds a private key that cannot be read");
        }
        m_contents.keys.push_back({std::move(owner), labelOf(bag)});
    }

    static std::string labelOf(PKCS12_SAFEBAG* bag) {
        const std::unique_ptr<char, OpensslDeleter<[](char* block) { OPENSSL_free(block); }>> name(
            PKCS12_get_friendlyname(bag));
        return name == nullptr ? "" : name.get();
    }

    const std::string m_path;
    const SecretBuffer& m_password;
    const char* m_passwordText = nullptr;
    int m_passwordLength = 0;
    Contents m_contents;
};

/// Gives OpenSSL the password instead of letting it ask for one.
int passwordCallback(char* buffer, int size, int, void* password) {
    const auto& text = *static_cast<const SecretBuffer*>(password);
    if (text.size() > static_cast<std::size_t>(size)) {
        return -1;
    }
    std::copy(text.begin(), text.end(), buffer);
    return static_cast<int>(text.size());
}

std::size_t occurrences(std::string_view text, std::string_view what) {
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string_view::npos; at = text.find(what, at + what.size())) {
        ++count;
    }
    return count;
}

BioPtr overBytes(const SecretBuffer& bytes) {
    BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    if (bio == nullptr) {
        throw std::bad_alloc();
    }
    return bio;
}

Contents readPem(const std::string& path, const SecretBuffer& bytes, SecretBuffer& password) {
    Contents contents;
    const std::size_t keys = occurrences({bytes.data(), bytes.size()}, "PRIVATE KEY-----") / 2;
    if (keys > 1) {
        fail("the key file " + path + " holds several private keys; in PEM there can be only one");
    }
    if (keys == 1) {
        PrivateKeyPtr key(PEM_read_bio_PrivateKey(overBytes(bytes).get(), nullptr, passwordCallback, &password));
        if (key == nullptr) {
            fail("the private key of the key file " + path +
                 (failedOfAlgorithm()
                      ? " is encrypted in a way that OpenSSL 3 no longer reads"
                      : " cannot be read: it is damaged, or the stash file's password is not its password"));
        }
        contents.keys.push_back({std::move(key), ""});
    }
    const BioPtr bio = overBytes(bytes);
    while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, passwordCallback, &password)) {
        contents.certificates.push_back({CertificatePtr(certificate), commonName(certificate)});
    }
    if (ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) {
        fail("the key file " + path + " holds a certificate that cannot be read");
    }
    return contents;
}

Contents readContents(const std::string& path, const SecretBuffer& bytes, SecretBuffer& password) {
    if (occurrences({bytes.data(), bytes.size()}, "-----BEGIN ") > 0) {
        return readPem(path, bytes, password);
    }
    const auto* start = reinterpret_cast<const unsigned char*>(bytes.data());
    const Pkcs12Ptr file(d2i_PKCS12(nullptr, &start, static_cast<long>(bytes.size())));
    if (file == nullptr) {
        fail("the key file " + path + " is neither PKCS#12 nor PEM");
    }
    return Pkcs12Reader(path.c_str(), password).read(file.get());
}

/// A certificate of the file that one of its keys belongs to.
struct Identity {
    LabelledCertificate* certificate;
    LabelledKey* key;
    std::string label() const { return certificate->label.empty() ? key->label : certificate->label; }
};

std::vector<Identity> findIdentities(Contents& contents) {
    std::vector<Identity> identities;
    for (LabelledCertificate& certificate : contents.certificates) {
        for (LabelledKey& key : contents.keys) {
            if (X509_check_private_key(certificate.certificate.get(), key.key.get()) == 1) {
                identities.push_back({&certificate, &key});
                break;
            }
        }
    }
    ERR_clear_error();  // of the pairs that do not match
    return identities;
}

std::string labelsOf(const std::vector<Identity>& identities) {
    std::string text;
    for (const Identity& identity : identities) {
        text += (text.empty() ? "" : ", ") + identity.label();
    }
    return text.empty() ? "none" : text;
}

/// The identity of this label, or the only one; null when there is none and none is asked for.
const Identity* chooseIdentity(const std::string& path, const std::vector<Identity>& identities, const char* label) {
    const Identity* chosen = nullptr;
    for (const Identity& identity : identities) {
        if (label != nullptr && identity.label() != label) {
            continue;
        }
        if (chosen != nullptr) {
            fail("the key file " + path +
                 (label != nullptr
                      ? " holds several identities labelled " + std::string(label)
                      : " holds several identities, and no label (ssl-keyfile-label) chooses one of them: " +
                            labelsOf(identities)));
        }
        chosen = &identity;
    }
    if (chosen == nullptr && label != nullptr) {
        fail("the key file " + path + " holds no identity labelled " + label +
             "; labels in it: " + labelsOf(identities));
    }
    return chosen;
}

bool isTrustworthy(X509* certificate) {
    return X509_check_ca(certificate) != 0 || X509_self_signed(certificate, 1) == 1;
}

}  // namespace

KeyFile loadKeyFile(const char* path, const char* stashPath, const char* label) {
    SecretBuffer password = stashPath == nullptr ? SecretBuffer() : readStash(stashPath);
    const SecretBuffer bytes = readFile(path, FileUse::kKeyFile);
    Contents contents = readContents(path, bytes, password);
    const std::vector<Identity> identities = findIdentities(contents);
    if (identities.empty() && !contents.keys.empty()) {
        fail("the key file " + std::string(path) + " holds a private key, but not its certificate");
    }
    KeyFile result;
    if (const Identity* identity = chooseIdentity(path, identities, label)) {
        result.key = std::move(identity->key->key);
        result.certificate = std::move(identity->certificate->certificate);
    }
    const auto isIdentity = [&](const LabelledCertificate& certificate) {
        return std::any_of(identities.begin(), identities.end(),
                           [&](const Identity& identity) { return identity.certificate == &certificate; });
    };
    for (LabelledCertificate& certificate : contents.certificates) {
        if (!isIdentity(certificate) && isTrustworthy(certificate.certificate.get())) {
            result.trusted.push_back(std::move(certificate.certificate));
        }
    }
    if (result.key == nullptr && result.trusted.empty()) {
        fail("the key file " + std::string(path) + " holds neither an identity nor a CA certificate");
    }
    return result;
}
