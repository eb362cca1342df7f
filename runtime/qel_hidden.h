/// A line of standard input that is not shown while it is typed: a password.
#pragma once

#include <functional>
#include <span>
#include <string_view>

enum class QelHidden {
    kLine,         ///< a line was read
    kEnd,          ///< the input ended or failed before there was anything
    kInterrupted,  ///< SIGINT came, as by Ctrl-C
};

/// Reads a line, without the terminal's echo if standard input is one. `line` becomes the part of `buffer` that holds
/// it, without its line feed and with a NUL behind it. What does not fit is dropped, up to the line's end. Unless there
/// is a line the buffer is all zero afterwards.
///
/// No signal leaves the echo off (QelTerminalSignals). `wasInterrupted` is asked when none can slip through any more,
/// before anything is shown or read: whether one came that the caller has heard of. `showPrompt` is called each time
/// the prompt must be shown. The buffer is the only place where bytes of the line are kept; the caller wipes it.
[[nodiscard]] QelHidden qel_read_hidden(std::span<char> buffer, std::string_view& line,
                                        const std::function<void()>& showPrompt,
                                        const std::function<bool()>& wasInterrupted = {});
