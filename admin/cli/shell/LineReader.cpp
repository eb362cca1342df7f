#include "admin/cli/shell/LineReader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "runtime/qel_io.h"

bool LineReader::next(SecretText& line) {
    line.wipe();
    while (line.size() < m_longest && !line.ends_with('\n')) {
        if (m_taken == m_filled && !fill()) {
            return m_error == 0 && !line.empty();
        }
        char* const begin = m_buffer.data() + m_taken;
        char* end = begin + std::min(m_filled - m_taken, m_longest - line.size());
        char* const lineFeed = std::find(begin, end, '\n');
        end = lineFeed == end ? end : lineFeed + 1;
        const auto length = static_cast<std::size_t>(end - begin);
        line.append(begin, length);
        explicit_bzero(begin, length);
        m_taken += length;
    }
    return true;
}

bool LineReader::fill() noexcept {
    const ssize_t got = qel_read(m_descriptor, m_buffer.data(), m_ahead == Ahead::kAllowed ? m_buffer.size() : 1);
    m_taken = 0;
    m_filled = got > 0 ? static_cast<std::size_t>(got) : 0;
    // A descriptor that was closed when the program started has nothing to read.
    m_error = got < 0 && errno != EBADF ? errno : 0;
    return got > 0;
}
