/// Reads a password: a line of standard input that the terminal does not show.
#pragma once

#include <functional>
#include <span>
#include <string_view>

enum class QelHidden {
    kLine,         ///< a line was read
    kEnd,          ///< the input ended or failed before there was anything
    kInterrupted,  ///< SIGINT came, as by Ctrl-C
};

/// Reads a line into `buffer`, which is not empty. If standard input is a terminal, its echo is off meanwhile, and no
/// signal leaves it off (QelTerminalSignals). `line` becomes the part of the buffer that holds the line: without its
/// line feed, and with a NUL behind it. A line that is longer than the buffer is cut. When there is no line the buffer
/// is zero. Bytes of the line are kept nowhere else, and the caller wipes the buffer.
///
/// `showPrompt` is called each time the prompt must be shown. `wasInterrupted`, if there is one, is called before
/// anything is shown or read, when signals are held back already. If it returns true, as when a handler of the caller's
/// has seen a SIGINT before that, the result is kInterrupted.
[[nodiscard]] QelHidden qel_read_hidden(std::span<char> buffer, std::string_view& line,
                                        const std::function<void()>& showPrompt,
                                        const std::function<bool()>& wasInterrupted = {});
