/// Reads lines from command files, and from standard input where that is no terminal. Any line may hold a password, so
/// the object wipes what it has given.
#pragma once

#include <array>
#include <cassert>
#include <cstddef>

#include "runtime/SecretBuffer.h"

class LineReader {
  public:
    enum class Ahead { kAllowed, kNever };
    static constexpr std::size_t kNoLimit = static_cast<std::size_t>(-1);

    /// Reads a descriptor that the caller keeps open. A line of more than `longest` bytes, its line feed included, is
    /// given in pieces. `ahead`: whether it may read further than the line. What it has read ahead, nobody else can
    /// read.
    LineReader(int descriptor, std::size_t longest, Ahead ahead) noexcept
        : m_descriptor(descriptor), m_longest(longest), m_ahead(ahead) {
        assert(longest > 0);
    }
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    /// Gives the next line, with its line feed unless the input ends without one. Returns false at the end of the input
    /// and after an error; the part of a line that was read before an error is dropped. Throws std::bad_alloc.
    bool next(SecretText& line);

    /// The error number of what ended the input; 0 when it was its end.
    int error() const noexcept { return m_error; }

  private:
    /// Fills the empty buffer. Returns false at the end of the input and after an error.
    bool fill() noexcept;

    int m_descriptor;
    std::size_t m_longest;
    Ahead m_ahead;
    int m_error = 0;
    std::array<char, 4096> m_buffer;
    std::size_t m_taken = 0;
    std::size_t m_filled = 0;
};
