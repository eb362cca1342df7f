#include "runtime/SecretFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "runtime/QelFileDescriptor.h"

namespace {

constexpr off_t kMaxFileBytes = off_t{1024} * 1024;

}  // namespace

SecretFile::SecretFile(const char* path, int moreFlags) {
    // O_NONBLOCK: opening a FIFO would otherwise wait for somebody who writes to it.
    const QelFileDescriptor descriptor(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | moreFlags));
    if (!descriptor.isOpen()) {
        throw UnusableFile{std::string("cannot be opened: ") +
                           (errno == ELOOP ? "it is a symbolic link" : std::strerror(errno))};
    }
    if (fstat(descriptor.get(), &m_status) != 0 || !S_ISREG(m_status.st_mode)) {
        throw UnusableFile{"cannot be used: it is not a regular file"};
    }
    if (m_status.st_size > kMaxFileBytes) {
        throw UnusableFile{"cannot be used: it is longer than 1 MiB"};
    }
    m_bytes.resize(static_cast<std::size_t>(m_status.st_size));
    std::size_t size = 0;
    for (ssize_t count = 1; count != 0; size += static_cast<std::size_t>(count)) {
        count = read(descriptor.get(), m_bytes.data() + size, m_bytes.size() - size);
        if (count < 0) {
            throw UnusableFile{std::string("cannot be read: ") + std::strerror(errno)};
        }
    }
    m_bytes.resize(size);
}

void SecretFile::checkOwner(mode_t refused, const std::string& why) const {
    if (m_status.st_uid != geteuid() && m_status.st_uid != 0) {
        throw UnusableFile{"cannot be used: it belongs to another user" + why};
    }
    if ((m_status.st_mode & refused) != 0) {
        throw UnusableFile{"cannot be used: others than its owner have permissions on it" + why +
                           " (chmod 600 takes them away)"};
    }
}

SecretBuffer readPasswordFile(const char* path) {
    SecretFile file(path, O_NOFOLLOW);
    file.checkOwner(SecretFile::kNobodyElse, "");
    SecretBuffer& bytes = file.bytes();
    bytes.erase(std::find(bytes.begin(), bytes.end(), '\n'), bytes.end());
    if (!bytes.empty() && bytes.back() == '\r') {
        bytes.pop_back();
    }
    return std::move(file.bytes());
}
