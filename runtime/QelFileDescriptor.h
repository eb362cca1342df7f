/// An open file of its own, closed at the end of its scope.
#pragma once

#include <unistd.h>

class QelFileDescriptor {
  public:
    /// Takes what open(2) returned, -1 included.
    explicit QelFileDescriptor(int descriptor) noexcept : m_descriptor(descriptor) {}
    QelFileDescriptor(const QelFileDescriptor&) = delete;
    QelFileDescriptor& operator=(const QelFileDescriptor&) = delete;
    ~QelFileDescriptor() {
        if (isOpen()) {
            close(m_descriptor);
        }
    }

    bool isOpen() const noexcept { return m_descriptor >= 0; }
    int get() const noexcept { return m_descriptor; }

  private:
    int m_descriptor;
};
