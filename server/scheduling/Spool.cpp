#include "server/scheduling/Spool.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace dsessd {

namespace {

constexpr std::size_t kMemoryBytes = 262'144;
constexpr std::size_t kPieceBytes = 65'536;
/// All files of the process together.
constexpr std::int64_t kFileBytes = 4'000'000'000;

std::atomic<std::int64_t> s_fileBytes = 0;

QelFileDescriptor namelessFile() {
    std::string path = "/var/tmp/dsessd-XXXXXX";
    QelFileDescriptor file(::mkostemp(path.data(), O_CLOEXEC));
    if (!file.isOpen() || ::unlink(path.c_str()) != 0) {
        throw std::runtime_error(std::string("no file in /var/tmp: ") + std::strerror(errno));
    }
    return file;
}

}  // namespace

Spool::~Spool() {
    s_fileBytes -= m_written;
}

void Spool::append(std::string piece) {
    bool wake = false;
    {
        MutexLock lock(m_mutex);
        const auto hasRoom = [this]() REQUIRES(m_mutex) { return m_pieceBytes < kMemoryBytes; };
        if (!m_file.isOpen() && !hasRoom()) {
            const auto start = std::chrono::steady_clock::now();
            lock.waitFor(m_taken, m_leftToWait, hasRoom);
            m_leftToWait -=
                std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        }
        if (m_file.isOpen() || !hasRoom()) {
            toFile(piece);
        } else {
            m_pieceBytes += piece.size();
            m_pieces.push_back(std::move(piece));
        }
        wake = std::exchange(m_takerWaits, false);
    }
    if (wake) {
        wakeTaker();
    }
}

void Spool::toFile(std::string_view piece) {
    if (!m_file.isOpen()) {
        m_file = namelessFile();
    }
    while (!piece.empty()) {
        const ssize_t put = s_fileBytes > kFileBytes ? (errno = ENOSPC, -1)
                                                     : ::pwrite(m_file.get(), piece.data(), piece.size(), m_written);
        if (put < 0) {
            throw std::runtime_error(std::string("no room in /var/tmp: ") + std::strerror(errno));
        }
        piece.remove_prefix(static_cast<std::size_t>(put));
        m_written += put;
        s_fileBytes += put;
    }
}

void Spool::end(bool whole) {
    bool wake = false;
    {
        const MutexLock lock(m_mutex);
        m_ended = true;
        m_whole = whole;
        wake = std::exchange(m_takerWaits, false);
    }
    if (wake) {
        wakeTaker();
    }
}

void Spool::wakeTaker() noexcept {
    try {
        m_wake();
    } catch (const std::bad_alloc&) {  // the taker looks again by itself
    }
}

Spool::Next Spool::take(std::string& piece) {
    const MutexLock lock(m_mutex);
    if (!m_pieces.empty()) {
        piece = std::move(m_pieces.front());
        m_pieces.pop_front();
        m_pieceBytes -= piece.size();
        m_taken.notify_one();
        return Next::kPiece;
    }
    if (m_read < m_written) {
        return takeFromFile(piece);
    }
    if (m_ended) {
        return m_whole ? Next::kEnd : Next::kBroken;
    }
    m_takerWaits = true;
    return Next::kLater;
}

Spool::Next Spool::takeFromFile(std::string& piece) {
    piece.resize(std::min<std::size_t>(kPieceBytes, static_cast<std::size_t>(m_written - m_read)));
    const ssize_t got = ::pread(m_file.get(), piece.data(), piece.size(), m_read);
    if (got <= 0) {
        return Next::kBroken;
    }
    piece.resize(static_cast<std::size_t>(got));
    m_read += got;
    return Next::kPiece;
}

}  // namespace dsessd
