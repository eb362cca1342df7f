#include "admin/client/answer/AnswerHead.h"

#include <algorithm>

#include "admin/client/base/Failure.h"
#include "protocol/protocol.h"
#include "runtime/qel_ascii.h"

namespace olmdsess {

namespace {

/// How much of a field's value is shown in a message.
constexpr std::size_t kShownBytes = 40;

bool isDigit(char byte) {
    return byte >= '0' && byte <= '9';
}

std::string_view withoutBlanks(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

AnswerHead::State AnswerHead::read(std::string_view text) {
    constexpr std::string_view kStart = "HTTP/1.";
    if (!kStart.starts_with(text.substr(0, kStart.size()))) {
        throw notUnderstood(kNotHttp);
    }
    for (std::size_t end; (end = text.find('\n', m_searched)) != std::string_view::npos;) {
        if (text[end - 1] != '\r') {
            throw notUnderstood("a line of its head ends without a carriage return");
        }
        const std::string_view line = text.substr(m_line, end - 1 - m_line);
        m_line = m_searched = end + 1;
        if (line.empty()) {
            return finish();
        }
        m_status == 0 ? readStatus(line) : readField(line);
    }
    m_searched = text.size();
    if (text.size() >= kMaxHeadBytes) {
        throw notUnderstood(kHeadTooLong);
    }
    return State::kGoesOn;
}

/// "HTTP/1.1 200 OK", the reason perhaps missing.
void AnswerHead::readStatus(std::string_view line) {
    constexpr std::size_t kVersionAt = 7;
    constexpr std::size_t kStatusAt = 9;
    constexpr std::size_t kEnd = kStatusAt + 3;
    if (line.size() < kEnd || (line[kVersionAt] != '0' && line[kVersionAt] != '1') || line[kStatusAt - 1] != ' ' ||
        !std::all_of(line.begin() + kStatusAt, line.begin() + kEnd, isDigit) || line[kStatusAt] == '0' ||
        (line.size() > kEnd && line[kEnd] != ' ')) {
        throw notUnderstood(kNotHttp);
    }
    m_isOld = line[kVersionAt] == '0';
    m_status = std::stoi(std::string(line.substr(kStatusAt, 3)));
}

void AnswerHead::readField(std::string_view line) {
    if (line.front() == ' ' || line.front() == '\t') {
        throw notUnderstood("a line of its head is folded");
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        throw notUnderstood(kNotHttp);
    }
    check(line.substr(0, colon), withoutBlanks(line.substr(colon + 1)));
}

void AnswerHead::check(std::string_view name, std::string_view value) {
    if (qel_ascii_equal(name, "Content-Length")) {
        if (m_hasLength) {
            throw notUnderstood("its length is given twice");
        }
        if (value.empty() || !std::all_of(value.begin(), value.end(), isDigit)) {
            throw notUnderstood("its length is no number");
        }
        m_hasLength = true;
    } else if (qel_ascii_equal(name, "Transfer-Encoding")) {
        if (m_isChunked || !qel_ascii_equal(value, "chunked")) {
            throw notUnderstood("it comes in a transfer coding other than chunked: " +
                                std::string(value.substr(0, kShownBytes)));
        }
        m_isChunked = true;
    } else if (qel_ascii_equal(name, "Content-Encoding") && !qel_ascii_equal(value, "identity")) {
        m_encoding = value.substr(0, kShownBytes);
    } else if (qel_ascii_equal(name, "Content-Type")) {
        m_isJson = qel_ascii_equal(withoutBlanks(value.substr(0, value.find(';'))), protocol::kContentType);
    } else if (qel_ascii_equal(name, protocol::kUnavailable)) {
        m_lacksStore = value == protocol::kStore;
    }
}

AnswerHead::State AnswerHead::finish() const {
    constexpr int kSwitchingProtocols = 101;
    if (m_status == 0) {
        throw notUnderstood(kNotHttp);
    }
    if (m_status < 200 && m_status != kSwitchingProtocols) {
        return State::kInterim;
    }
    if (m_status != 200) {
        return State::kFinal;  // whatever its body is, nobody reads it
    }
    if (m_isChunked && (m_hasLength || m_isOld)) {
        throw notUnderstood(m_isOld ? "it comes in chunks, which HTTP/1.0 does not have"
                                    : "its length is given beside chunks");
    }
    if (!m_encoding.empty()) {
        throw notUnderstood("it is encoded: " + m_encoding);
    }
    if (!m_isJson) {
        throw notUnderstood(std::string("its type is not ") + protocol::kContentType);
    }
    return State::kFinal;
}

}  // namespace olmdsess
