/// Owns a file descriptor and closes it when the object goes.
#pragma once

#include <unistd.h>

#include <utility>

class QelFileDescriptor {
  public:
    /// Takes what open(2), socket(2) and their like returned; -1 is none.
    explicit QelFileDescriptor(int descriptor = -1) noexcept : m_descriptor(descriptor) {}
    QelFileDescriptor(QelFileDescriptor&& other) noexcept : m_descriptor(other.release()) {}
    QelFileDescriptor& operator=(QelFileDescriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~QelFileDescriptor() { reset(); }

    bool isOpen() const noexcept { return m_descriptor >= 0; }
    int get() const noexcept { return m_descriptor; }
    /// Hands the descriptor over to the caller, who closes it.
    [[nodiscard]] int release() noexcept { return std::exchange(m_descriptor, -1); }
    /// Closes what it owns and takes another descriptor, or none.
    void reset(int descriptor = -1) noexcept {
        if (isOpen()) {
            close(m_descriptor);
        }
        m_descriptor = descriptor;
    }

  private:
    int m_descriptor;
};
