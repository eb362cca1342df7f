/// Reading and writing that goes on after interruptions, and the standard streams on top of it.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <string_view>

/// read(2), but repeats it after an interruption by a signal, and waits for input if the descriptor does not block.
[[nodiscard]] ssize_t qel_read(int descriptor, void* buffer, std::size_t size) noexcept;

/// Writes all of `bytes`, in as many pieces as it takes. Repeats and waits as qel_read does. Returns false, with errno,
/// on a failure.
[[nodiscard]] bool qel_write(int descriptor, std::string_view bytes) noexcept;

/// Opens those of the descriptors 0 to 2 that are closed, in such a way that reading and writing them fails, and
/// opening /dev/stdin fails too. Otherwise the next file or socket would take the place of a standard stream. Call it
/// before anything is opened. Returns false when it is not possible.
[[nodiscard]] bool qel_open_standard_descriptors() noexcept;

/// Replaces stdout and stderr by streams that lose nothing: those of the C library drop what they hold when a write is
/// interrupted or would block. stderr then writes at once. stdout writes into a buffer, which is written out by
/// qel_flush_output, when it is full, and after each line if it is a terminal. Call it once, before anything is
/// written. Without memory the streams stay as they are.
void qel_set_up_output() noexcept;

/// Writes out what stdout holds, which std::fflush does not do. qel_output_error tells whether that failed.
void qel_flush_output() noexcept;

/// The error number of the first write to standard output that failed, or 0.
[[nodiscard]] int qel_output_error() noexcept;

/// Writes out what stdout holds: for a signal handler that ends the program, at whatever moment it came.
void qel_rescue_output() noexcept;

/// Gathers text for a stream in a buffer of its own, and needs no memory. The stream gets it when the buffer is full
/// and when the object goes: a short text in one piece.
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
