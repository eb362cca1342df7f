#include "server/store/NewFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "runtime/qel_io.h"

namespace dsessd {

NewFile::NewFile(const std::string& path) : m_path(path) {
    struct stat old {};
    const bool replaces = ::stat(path.c_str(), &old) == 0;
    if (replaces) {
        m_path = std::filesystem::canonical(path);  // a link stays one
    }
    if (replaces && !S_ISREG(old.st_mode)) {
        throw std::runtime_error(path + " is not a file");
    }
    m_temporaryPath = m_path + ".XXXXXX";
    m_file.reset(::mkostemp(m_temporaryPath.data(), O_CLOEXEC));
    if (!m_file.isOpen()) {
        fail();
    }
    if (replaces && old.st_uid != ::geteuid() && ::fchown(m_file.get(), old.st_uid, old.st_gid) != 0) {
        const int error = errno;
        ::unlink(m_temporaryPath.c_str());
        errno = error;
        fail();
    }
}

NewFile::~NewFile() {
    if (!m_temporaryPath.empty()) {
        ::unlink(m_temporaryPath.c_str());
    }
}

void NewFile::write(std::string_view text) {
    if (!qel_write(m_file.get(), text)) {
        fail();
    }
}

void NewFile::place() {
    if (::fsync(m_file.get()) != 0 || std::rename(m_temporaryPath.c_str(), m_path.c_str()) != 0) {
        fail();
    }
    m_temporaryPath.clear();
    const std::filesystem::path folder = std::filesystem::absolute(m_path).parent_path();
    const QelFileDescriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.isOpen() || ::fsync(directory.get()) != 0) {
        fail();
    }
}

void NewFile::fail() const {
    throw std::runtime_error(m_path + " cannot be written: " + std::strerror(errno));
}

}  // namespace dsessd
