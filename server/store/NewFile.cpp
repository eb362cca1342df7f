#include "server/store/NewFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "runtime/qel_io.h"

namespace dsessd {

namespace {

/// The path of the file that is being written; null: there is none. A signal that ends the process removes that file,
/// which may be large and holds secrets.
const char* volatile unfinished = nullptr;

extern "C" void removeUnfinished(int signal) {
    if (unfinished != nullptr) {
        ::unlink(unfinished);
    }
    std::raise(signal);  // the default action by now, taken when this returns
}

void removeAtSignals() {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
            action.sa_handler = removeUnfinished;
            action.sa_flags = static_cast<int>(SA_RESETHAND);
            ::sigaction(signal, &action, nullptr);
        }
    }
}

}  // namespace

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
    unfinished = m_temporaryPath.c_str();  // in which the name is made
    removeAtSignals();
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
    unfinished = nullptr;
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
    unfinished = nullptr;
    m_temporaryPath.clear();
    const std::filesystem::path folder = std::filesystem::absolute(m_path).parent_path();
    const QelFileDescriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.isOpen() || ::fsync(directory.get()) != 0) {
        fail();
    }
}

void NewFile::fail() const {
    unfinished = nullptr;  // the destructor, if there will be one, removes it
    throw std::runtime_error(m_path + " cannot be written: " + std::strerror(errno));
}

}  // namespace dsessd
