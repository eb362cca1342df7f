#include "runtime/qel_hidden.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "runtime/QelTerminalSignals.h"

namespace {

/// Reads one line with the echo off. The echo is restored when the object goes.
class Reader {
  public:
    explicit Reader(const std::function<void()>& showPrompt) : m_showPrompt(showPrompt) {
        if (m_signals.isTerminal()) {
            ioctl(STDIN_FILENO, FIONREAD, &m_typedAhead);
            hide();
        }
    }

    QelHidden read(std::span<char> buffer, std::size_t& length) {
        m_showPrompt();
        for (bool any = false;; any = true) {
            char byte = 0;
            const QelHidden result = readByte(byte);
            if (result == QelHidden::kInterrupted || (result == QelHidden::kEnd && !any)) {
                return result;
            }
            if (result == QelHidden::kEnd || endsLine(byte)) {
                return m_failed ? QelHidden::kEnd : QelHidden::kLine;
            }
            if (length + 1 < buffer.size()) {
                buffer[length++] = byte;
            }
        }
    }

  private:
    void hide() const {
        termios silent = m_signals.settings();
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
        tcsetattr(STDIN_FILENO, TCSANOW, &silent);
    }

    QelHidden readByte(char& byte) {
        for (;;) {
            switch (m_signals.wait()) {
                case QelTerminalSignals::Event::kInterrupt:
                    return QelHidden::kInterrupted;
                case QelTerminalSignals::Event::kResume:
                    hide();
                    m_showPrompt();
                    break;
                case QelTerminalSignals::Event::kResize:
                    break;
                case QelTerminalSignals::Event::kInput:
                    if (const ssize_t got = ::read(STDIN_FILENO, &byte, 1); got == 1) {
                        return QelHidden::kLine;
                    } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
                        m_failed = got < 0;
                        return QelHidden::kEnd;
                    }
            }
        }
    }

    // A line editor has the terminal pass on carriage returns, so they end the lines that were typed ahead of the
    // prompt. In a line that is typed now, a carriage return is part of the password (Ctrl-V Ctrl-M).
    bool endsLine(char byte) {
        const bool typedAhead = m_typedAhead > 0;
        m_typedAhead -= typedAhead ? 1 : 0;
        return byte == '\n' || (typedAhead && byte == '\r');
    }

    QelTerminalSignals m_signals;
    const std::function<void()>& m_showPrompt;
    int m_typedAhead = 0;
    bool m_failed = false;
};

}  // namespace

QelHidden qel_read_hidden(std::span<char> buffer, std::string_view& line, const std::function<void()>& showPrompt,
                          const std::function<bool()>& wasInterrupted) {
    std::fill(buffer.begin(), buffer.end(), '\0');
    std::size_t length = 0;
    Reader reader(showPrompt);
    const QelHidden result = wasInterrupted && wasInterrupted() ? QelHidden::kInterrupted : reader.read(buffer, length);
    if (result != QelHidden::kLine) {
        explicit_bzero(buffer.data(), buffer.size());
        length = 0;
    }
    line = {buffer.data(), length};
    return result;
}
