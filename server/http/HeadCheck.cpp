#include "server/http/HeadCheck.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "runtime/qel_ascii.h"

namespace dsessd {

namespace {

constexpr std::string_view kBlanks = " \t";

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    return first == text.npos ? "" : text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
}

}  // namespace

int HeadCheck::take(std::string_view head) {
    assert(head.size() >= m_seen);  // what came before comes again
    while (m_length == 0) {
        const std::size_t end = head.find('\n', m_seen);
        if (end == head.npos) {
            m_seen = head.size();
            const std::string_view begun = head.substr(m_line);
            const bool isLooked = m_line == 0 && !begun.empty();
            return head.size() >= kMaxHeadBytes ? 413 : isLooked ? problemOf(begun) : 0;
        }
        const std::string_view line = head.substr(m_line, end - m_line);
        if (line.empty() || line.back() != '\r') {
            return 400;
        }
        const std::string_view text = line.substr(0, line.size() - 1);
        const int problem = text.empty() && m_line != 0 ? 0 : problemOf(text);
        if (problem != 0) {
            return problem;
        }
        m_length = text.empty() ? end + 1 : 0;
        m_line = m_seen = end + 1;
    }
    return 0;
}

int HeadCheck::problemOf(std::string_view line) {
    const bool isFirst = m_line == 0;
    if (isFirst && (line.empty() || line.front() < 'A' || line.front() > 'Z')) {
        return 400;  // such as TLS at a port without it
    }
    if (line.size() > kMaxLineBytes) {
        return isFirst ? 414 : 400;
    }
    return isFirst || isFramingClear(line) ? 0 : 400;
}

bool HeadCheck::isFramingClear(std::string_view line) {
    if (kBlanks.find(line.front()) != kBlanks.npos) {
        return false;
    }
    const std::size_t colon = line.find(':');
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = colon == line.npos ? "" : trimmed(line.substr(colon + 1));
    if (qel_ascii_equal(name, "Content-Length")) {
        const bool isNumber = std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; });
        return !std::exchange(m_framed, true) && !value.empty() && isNumber;
    }
    if (qel_ascii_equal(name, "Transfer-Encoding")) {
        return !std::exchange(m_framed, true) && qel_ascii_equal(value, "chunked");
    }
    return !qel_ascii_equal(name, "Host") || !std::exchange(m_hasHost, true);
}

}  // namespace dsessd
