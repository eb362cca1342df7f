/// Reads and writes that see through what is no failure, and the standard streams on top of them.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <string_view>

/// read(2), but tried again when a signal interrupts it, and waiting for input where the descriptor does not block.
[[nodiscard]] ssize_t qel_read(int descriptor, void* buffer, std::size_t size) noexcept;

/// Writes all of `bytes`, in as many pieces as it takes; waits as qel_read does. Returns false, with errno, on a
/// failure.
[[nodiscard]] bool qel_write(int descriptor, std::string_view bytes) noexcept;

/// Opens those of the descriptors 0 to 2 that are closed, so that reading and writing them, or opening them by a name
/// such as /dev/stdin, fails and no file or socket can take their place. Call it before anything is opened. Returns
/// false when that is not possible.
[[nodiscard]] bool qel_open_standard_descriptors() noexcept;

/// Lets stderr write at once, and stdout into a buffer that qel_flush_output empties, the end of a line on a terminal,
/// and what does not fit. The C library's own streams drop what they hold when a write is interrupted. Call it once,
/// before anything is written. Without memory the streams stay as they are.
void qel_set_up_output() noexcept;

/// Writes out what stdout holds, which std::fflush does not do. A failure is told by qel_output_error.
void qel_flush_output() noexcept;

/// The error number of the first write of stdout's that failed, or 0.
[[nodiscard]] int qel_output_error() noexcept;

/// Writes out what stdout holds: for a signal handler that ends the program, at whatever moment it came.
void qel_rescue_output() noexcept;

/// Gathers text on the stack, so that it needs no memory, and hands it to a stream when there is much of it and at the
/// end: a short one in one piece.
class QelGatheredOutput {
  public:
    explicit QelGatheredOutput(std::FILE* stream) noexcept : m_stream(stream) {}
    QelGatheredOutput(const QelGatheredOutput&) = delete;
    QelGatheredOutput& operator=(const QelGatheredOutput&) = delete;
    ~QelGatheredOutput() { flush(); }

    void put(std::string_view text) noexcept {
        if (text.size() > m_buffer.size() - m_length) {
            flush();
        }
        if (text.size() > m_buffer.size()) {
            std::fwrite(text.data(), 1, text.size(), m_stream);
        } else {
            m_length += text.copy(m_buffer.data() + m_length, text.size());
        }
    }

  private:
    void flush() noexcept {
        std::fwrite(m_buffer.data(), 1, m_length, m_stream);
        m_length = 0;
    }

    std::FILE* const m_stream;
    std::array<char, 4096> m_buffer;
    std::size_t m_length = 0;
};
