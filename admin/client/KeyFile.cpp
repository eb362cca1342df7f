#include "admin/client/KeyFile.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "admin/client/DistinguishedName.h"
#include "admin/client/PemFile.h"
#include "admin/client/Pkcs12File.h"
#include "runtime/QelFileDescriptor.h"
#include "runtime/SecretBuffer.h"

namespace olmdsess {

namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{1024} * 1024;
constexpr mode_t kNobodyElse = S_IRWXG | S_IRWXO;
constexpr mode_t kNobodyElseWrites = S_IWGRP | S_IWOTH;

struct File {
    std::string called;
    struct stat status {};
    SecretBuffer bytes;
};

/// Refuses a file that others could have read or written, by the permissions that are refused.
void checkOwner(const File& file, mode_t refused, const char* why) {
    if (file.status.st_uid != geteuid() && file.status.st_uid != 0) {
        failOfKeyFile(file.called + " cannot be used: it belongs to another user" + why);
    }
    if ((file.status.st_mode & refused) != 0) {
        failOfKeyFile(file.called + " cannot be used: others than its owner have permissions on it" + why +
                      " (chmod 600 takes them away)");
    }
}

/// Reads a regular file. A FIFO must not hang the open, so that it never waits.
File readFile(const char* what, const char* path, int moreFlags) {
    File file{std::string(what) + " " + path, {}, {}};
    const QelFileDescriptor descriptor(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | moreFlags));
    if (!descriptor.isOpen()) {
        failOfKeyFile(file.called +
                      " cannot be opened: " + (errno == ELOOP ? "it is a symbolic link" : std::strerror(errno)));
    }
    if (fstat(descriptor.get(), &file.status) != 0 || !S_ISREG(file.status.st_mode)) {
        failOfKeyFile(file.called + " cannot be used: it is not a regular file");
    }
    // One byte more than it has, to see its end; all that is allowed for one that grows meanwhile.
    file.bytes.resize(std::min(static_cast<std::size_t>(file.status.st_size), kMaxFileBytes) + 1);
    std::size_t size = 0;
    while (size <= kMaxFileBytes) {
        if (size == file.bytes.size()) {
            file.bytes.resize(kMaxFileBytes + 1);
        }
        const ssize_t count = read(descriptor.get(), file.bytes.data() + size, file.bytes.size() - size);
        if (count < 0) {
            failOfKeyFile(file.called + " cannot be read: " + std::strerror(errno));
        }
        if (count == 0) {
            break;
        }
        size += static_cast<std::size_t>(count);
    }
    if (size > kMaxFileBytes) {
        failOfKeyFile(file.called + " cannot be used: it is longer than 1 MiB");
    }
    file.bytes.resize(size);
    return file;
}

/// The first line, without its end.
SecretBuffer readStash(const char* path) {
    File file = readFile("the stash file", path, O_NOFOLLOW);
    checkOwner(file, kNobodyElse, "");
    SecretBuffer& bytes = file.bytes;
    bytes.resize(static_cast<std::size_t>(std::find(bytes.begin(), bytes.end(), '\n') - bytes.begin()));
    if (!bytes.empty() && bytes.back() == '\r') {
        bytes.pop_back();
    }
    return std::move(file.bytes);
}

/// DER of this size begins with a sequence whose length takes more than one byte.
bool isDer(const SecretBuffer& bytes) {
    return bytes.size() > 1 && bytes[0] == '\x30' && (bytes[1] & '\x80') != 0;
}

KeyFileContents readContents(const char* path, SecretBuffer& password) {
    const File file = readFile("the key file", path, 0);
    KeyFileContents contents =
        isDer(file.bytes) ? readPkcs12(path, file.bytes, password) : readPem(path, file.bytes, password);
    if (contents.hasPlainKey) {
        checkOwner(file, kNobodyElse, ", and its private key is not encrypted");
    } else if (!contents.isSealed) {
        checkOwner(file, kNobodyElseWrites, ", and could put in whom to trust");
    }
    return contents;
}

/// A certificate of the file that one of its keys belongs to.
struct Identity {
    KeyFileContents::Certificate* certificate;
    KeyFileContents::Key* key;
    std::string label() const { return certificate->label.empty() ? key->label : certificate->label; }
};

std::vector<Identity> findIdentities(KeyFileContents& contents) {
    std::vector<Identity> identities;
    for (KeyFileContents::Certificate& certificate : contents.certificates) {
        for (KeyFileContents::Key& key : contents.keys) {
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
            failOfKeyFile("the key file " + path +
                          (label != nullptr
                               ? " holds several identities labelled " + std::string(label)
                               : " holds several identities, and no label (ssl-keyfile-label) chooses one of them: " +
                                     labelsOf(identities)));
        }
        chosen = &identity;
    }
    if (chosen == nullptr && label != nullptr) {
        failOfKeyFile("the key file " + path + " holds no identity labelled " + label +
                      "; labels in it: " + labelsOf(identities));
    }
    return chosen;
}

bool isTrustworthy(X509* certificate) {
    return X509_check_ca(certificate) != 0 || X509_self_signed(certificate, 1) == 1;
}

/// The issuer among these, one that has not ended if there is a choice; null when there is none.
X509* issuerOf(X509* certificate, const std::vector<KeyFileContents::Certificate>& certificates) {
    std::vector<X509*> candidates;
    for (const KeyFileContents::Certificate& candidate : certificates) {
        if (X509_check_issued(candidate.certificate.get(), certificate) == X509_V_OK) {
            candidates.push_back(candidate.certificate.get());
        }
    }
    if (candidates.size() == 1) {
        return candidates.front();  // whoever gets the chain verifies it
    }
    X509* found = nullptr;
    for (X509* issuer : candidates) {
        if (X509_verify(certificate, X509_get0_pubkey(issuer)) == 1 &&
            (found == nullptr || X509_cmp_current_time(X509_get0_notAfter(found)) < 0)) {
            found = issuer;
        }
    }
    return found;
}

CertificatePtr shared(X509* certificate) {
    X509_up_ref(certificate);
    return CertificatePtr(certificate);
}

/// The certificates above this one, in order, as far as the file has them.
std::vector<CertificatePtr> chainOf(X509* certificate, const std::vector<KeyFileContents::Certificate>& certificates) {
    std::vector<CertificatePtr> chain;
    while (chain.size() < certificates.size() && X509_self_signed(certificate, 0) != 1) {
        certificate = issuerOf(certificate, certificates);
        if (certificate == nullptr) {
            break;
        }
        chain.push_back(shared(certificate));
    }
    ERR_clear_error();  // of the pairs that do not match
    return chain;
}

/// The certificates that are trusted. Those without a key that are none have to stand beside one that is: the
/// system's are asked only where the file holds no sign of others.
std::vector<CertificatePtr> findTrusted(const char* path, const KeyFileContents& contents,
                                        const std::vector<Identity>& identities) {
    std::vector<CertificatePtr> trusted;
    const X509* other = nullptr;
    for (const KeyFileContents::Certificate& certificate : contents.certificates) {
        const bool isIdentity = std::any_of(identities.begin(), identities.end(), [&](const Identity& identity) {
            return identity.certificate == &certificate;
        });
        if (!isIdentity && isTrustworthy(certificate.certificate.get())) {
            trusted.push_back(shared(certificate.certificate.get()));
        } else if (!isIdentity) {
            other = certificate.certificate.get();
        }
    }
    if (trusted.empty() && other != nullptr) {
        failOfKeyFile("the key file " + std::string(path) + " holds neither a CA certificate nor the private key of " +
                      subjectText(other));
    }
    return trusted;
}

}  // namespace

KeyFile loadKeyFile(const char* path, const char* stashPath, const char* label) {
    SecretBuffer password = stashPath == nullptr ? SecretBuffer() : readStash(stashPath);
    KeyFileContents contents = readContents(path, password);
    const std::vector<Identity> identities = findIdentities(contents);
    if (identities.empty() && !contents.keys.empty()) {
        failOfKeyFile("the key file " + std::string(path) + " holds a private key, but not its certificate");
    }
    KeyFile result;
    result.trusted = findTrusted(path, contents, identities);
    if (const Identity* identity = chooseIdentity(path, identities, label)) {
        result.key = std::move(identity->key->key);
        result.certificate = shared(identity->certificate->certificate.get());
        result.chain = chainOf(result.certificate.get(), contents.certificates);
    }
    if (result.key == nullptr && result.trusted.empty()) {
        failOfKeyFile("the key file " + std::string(path) + " holds neither an identity nor a CA certificate");
    }
    return result;
}

}  // namespace olmdsess
