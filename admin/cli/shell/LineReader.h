/// The lines of standard input that is no terminal, and of command files. Any may hold a password, so none stays
/// behind.
#pragma once

#include <array>
#include <cstddef>

#include "runtime/SecretBuffer.h"

class LineReader {
  public:
    enum class Ahead { kAllowed, kNever };
    static constexpr std::size_t kNoLimit = static_cast<std::size_t>(-1);

    /// Reads a descriptor of the caller's. A longer line than `longest` bytes, its line feed included, is given in
    /// pieces. `ahead`: whether more than the line may be taken, which none but this object can then read.
    LineReader(int descriptor, std::size_t longest, Ahead ahead) noexcept
        : m_descriptor(descriptor), m_longest(longest), m_ahead(ahead) {}
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    /// The next line, with its line feed unless the input ends without one. Returns false at the end of the input and
    /// after an error; what was read of a line before the error is dropped. Throws std::bad_alloc.
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
