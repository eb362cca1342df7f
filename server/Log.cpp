#include "server/Log.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <string>

#include "runtime/QelTimeText.h"

namespace dsessd {

namespace {

struct TopicTraits {
    const char* name;
    int level;
};

TopicTraits traitsOf(Topic topic) {
    switch (topic) {
        case Topic::kFailure:
            return {"failure", 0};
        case Topic::kNotice:
            return {"notice", 0};
        case Topic::kAudit:
            return {"audit", 1};
        case Topic::kRequest:
            return {"request", 2};
        case Topic::kDetail:
            return {"detail", 3};
    }
    return {"", 0};
}

std::string timestamp() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const QelTimeText seconds(system_clock::to_time_t(now), "%Y-%m-%dT%H:%M:%S");
    const auto milliseconds = duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "%s.%03dZ", seconds.data(), static_cast<int>(milliseconds));
    return text.data();
}

}  // namespace

bool Log::wants(Topic topic) const {
    return m_level >= traitsOf(topic).level;
}

void Log::write(Topic topic, std::string_view text) {
    if (!wants(topic)) {
        return;
    }
    std::string line = timestamp();
    line.append(" ").append(traitsOf(topic).name).append(" ").append(text).append("\n");
    const std::lock_guard lock(m_mutex);
    // One call a line; a log that cannot be written must not stop the server.
    [[maybe_unused]] const ssize_t written = ::write(m_fd, line.data(), line.size());
}

void Log::failed(const char* what, const std::exception& why) noexcept {
    try {
        write(Topic::kFailure, std::string(what) + ": " + why.what());
    } catch (const std::bad_alloc&) {
        constexpr std::string_view kLine = "no memory to say what failed\n";
        [[maybe_unused]] const ssize_t written = ::write(m_fd, kLine.data(), kLine.size());
    }
}

}  // namespace dsessd
