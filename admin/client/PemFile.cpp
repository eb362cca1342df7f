#include "admin/client/PemFile.h"

#include <openssl/pem.h>

#include <algorithm>
#include <new>
#include <string_view>

#include "admin/client/DistinguishedName.h"
#include "runtime/qel_ascii.h"

namespace olmdsess {

namespace {

constexpr std::string_view kBegin = "-----BEGIN ";
constexpr std::string_view kDashes = "-----";
/// Nothing but base64 for so long is what is left of a block's body, of which a line has 64, and not text.
constexpr std::size_t kLongestWord = 24;

using SigPtr = std::unique_ptr<X509_SIG, OpensslDeleter<X509_SIG_free>>;

bool isBase64(char byte) {
    const char upper = qel_ascii_upper(byte);
    return (upper >= 'A' && upper <= 'Z') || (byte >= '0' && byte <= '9') || byte == '+' || byte == '/' || byte == '=';
}

bool isBase64(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char byte) { return isBase64(byte); });
}

bool contains(std::string_view text, std::string_view what) {
    return text.find(what) != std::string_view::npos;
}

/// Gives OpenSSL the password instead of letting it ask for one.
int passwordCallback(char* buffer, int size, int, void* password) {
    const auto& text = *static_cast<const SecretBuffer*>(password);
    if (text.size() > static_cast<std::size_t>(size)) {
        return -1;
    }
    std::copy(text.begin(), text.end(), buffer);
    return static_cast<int>(text.size());
}

/// What stands between BEGIN and END, both included.
struct Block {
    std::string_view label;
    std::string_view text;
    int line;  ///< of BEGIN
    bool hasHeader = false;
};

class PemReader {
  public:
    PemReader(const std::string& path, std::string_view text, SecretBuffer& password)
        : m_called("the key file " + path), m_rest(text), m_password(password), m_work(path) {}

    KeyFileContents read() {
        bool found = false;
        while (nextLine()) {
            if (m_line.starts_with(kBegin) && m_line.ends_with(kDashes) &&
                m_line.size() > kBegin.size() + kDashes.size()) {
                take(readBlock());
                found = true;
            } else {
                checkText();
            }
        }
        if (!found) {
            failOfKeyFile(m_called + " is neither PKCS#12 nor PEM");
        }
        return std::move(m_contents);
    }

  private:
    [[noreturn]] void fail(const std::string& why, int line) const {
        failOfKeyFile(m_called + " " + why + " (line " + std::to_string(line) + ")");
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

    /// Text between blocks, unless it may be what is left of one: a certificate that went missing would change whom we
    /// trust.
    void checkText() const {
        const bool isBinary = std::any_of(m_line.begin(), m_line.end(), [](char byte) {
            return (byte >= 0 && byte < ' ' && byte != '\t') || byte == '\x7F';
        });
        if (contains(m_line, "---") || isBinary || (m_line.size() >= kLongestWord && isBase64(m_line))) {
            fail("holds something that is not understood", m_number);
        }
    }

    Block readBlock() {
        const char* const start = m_line.data();
        Block block{m_line.substr(kBegin.size(), m_line.size() - kBegin.size() - kDashes.size()), {}, m_number};
        const std::string end = "-----END " + std::string(block.label) + "-----";
        while (nextLine()) {
            if (m_line == end) {
                block.text = {start, static_cast<std::size_t>(m_line.data() + m_line.size() - start)};
                return block;
            }
            const bool isHeader = m_line.starts_with("Proc-Type:") || m_line.starts_with("DEK-Info:");
            block.hasHeader = block.hasHeader || isHeader;
            if (!isHeader && !isBase64(m_line)) {
                fail("is damaged", m_number);
            }
        }
        fail("is damaged: the end is missing of what begins", block.line);
    }

    void take(const Block& block) {
        if (block.label == PEM_STRING_X509 || block.label == PEM_STRING_X509_OLD) {
            takeCertificate(block);
        } else if (block.label == PEM_STRING_PKCS8) {
            takeEncryptedKey(block);
        } else if (block.label == PEM_STRING_PKCS8INF || block.label == PEM_STRING_RSA ||
                   block.label == PEM_STRING_ECPRIVATEKEY || block.label == PEM_STRING_DSA) {
            takeKey(block);
        } else if (block.label != PEM_STRING_ECPARAMETERS) {  // which openssl writes before such a key
            fail("holds something that is not understood: " + std::string(block.label), block.line);
        }
    }

    static BioPtr over(const Block& block) {
        BioPtr bio(BIO_new_mem_buf(block.text.data(), static_cast<int>(block.text.size())));
        if (bio == nullptr) {
            throw std::bad_alloc();
        }
        return bio;
    }

    /// Decodes a block that is one DER object and nothing else; null otherwise.
    template <class Pointer>
    static Pointer decode(const Block& block, auto parse) {
        char* name = nullptr;
        char* header = nullptr;
        unsigned char* bytes = nullptr;
        long size = 0;
        if (block.hasHeader || PEM_read_bio(over(block).get(), &name, &header, &bytes, &size) != 1) {
            return nullptr;
        }
        const unsigned char* end = bytes;
        Pointer object(parse(nullptr, &end, size));
        const bool whole = end == bytes + size;
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(bytes);
        return whole ? std::move(object) : nullptr;
    }

    void takeCertificate(const Block& block) {
        auto certificate = decode<CertificatePtr>(block, d2i_X509);
        if (certificate == nullptr) {
            fail("holds a certificate that cannot be read", block.line);
        }
        const std::string label = commonName(certificate.get());
        m_contents.add(std::move(certificate), label);
    }

    void takeEncryptedKey(const Block& block) {
        const auto sealed = decode<SigPtr>(block, d2i_X509_SIG);
        if (sealed == nullptr) {
            fail("holds a private key that is damaged", block.line);
        }
        const X509_ALGOR* algorithm = nullptr;
        X509_SIG_get0(sealed.get(), &algorithm, nullptr);
        m_work.add(algorithm);
        const Pkcs8Ptr plain(PKCS8_decrypt(sealed.get(), m_password.empty() ? "" : m_password.data(),
                                           static_cast<int>(m_password.size())));
        if (plain == nullptr) {
            failToDecrypt(block);
        }
        add(PrivateKeyPtr(EVP_PKCS82PKEY(plain.get())), block);
    }

    void takeKey(const Block& block) {
        if (!block.hasHeader) {
            m_contents.hasPlainKey = true;
        }
        PrivateKeyPtr key(PEM_read_bio_PrivateKey(over(block).get(), nullptr, passwordCallback, &m_password));
        if (key == nullptr && block.hasHeader) {
            failToDecrypt(block);
        }
        add(std::move(key), block);
    }

    [[noreturn]] void failToDecrypt(const Block& block) const {
        fail(failedOfAlgorithm()
                 ? "holds a private key that is encrypted in a way that OpenSSL 3 no longer reads"
                 : "holds a private key that cannot be read: it is damaged, or the stash file's password "
                   "is not its password",
             block.line);
    }

    void add(PrivateKeyPtr key, const Block& block) {
        if (key == nullptr) {
            fail("holds a private key that is damaged", block.line);
        }
        m_contents.hasPlainKey = m_contents.hasPlainKey || m_password.empty();
        m_contents.add(std::move(key), "");
        if (m_contents.keys.size() > 1) {
            fail("holds several private keys; in PEM there can be only one", block.line);
        }
    }

    const std::string m_called;
    std::string_view m_rest;
    std::string_view m_line;
    int m_number = 0;
    SecretBuffer& m_password;
    DerivationWork m_work;
    KeyFileContents m_contents;
};

}  // namespace

KeyFileContents readPem(const std::string& path, const SecretBuffer& bytes, SecretBuffer& password) {
    std::string_view text(bytes.data(), bytes.size());
    if (text.starts_with("\xEF\xBB\xBF")) {  // a byte order mark
        text.remove_prefix(3);
    }
    return PemReader(path, text, password).read();
}

}  // namespace olmdsess
