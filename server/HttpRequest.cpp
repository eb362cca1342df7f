#include "server/HttpRequest.h"

#include <algorithm>
#include <utility>

#include "protocol/protocol.h"
#include "runtime/qel_ascii.h"

namespace dsessd {

namespace {

namespace http = boost::beast::http;

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool hasBareLineFeed(std::string_view text) {
    for (std::size_t at = text.find('\n'); at != text.npos; at = text.find('\n', at + 1)) {
        if (at == 0 || text[at - 1] != '\r') {
            return true;
        }
    }
    return false;
}

template <typename Text>
std::string_view viewOf(const Text& text) {
    return {text.data(), text.size()};
}

}  // namespace

std::size_t HttpRequest::take(std::string_view bytes) {
    return is_header_done() ? parse(bytes) : takeHead(bytes);
}

/// Looks at each line as it comes, so that what is wrong is refused at once.
std::size_t HttpRequest::takeHead(std::string_view bytes) {
    for (;;) {
        const std::size_t end = bytes.find('\n', m_line);
        const std::string_view line = bytes.substr(m_line, end == bytes.npos ? bytes.npos : end - m_line);
        if (end == bytes.npos) {
            m_refusal = bytes.size() >= kMaxHeadBytes ? 413 : line.empty() || m_line != 0 ? 0 : problemOf(line);
            return 0;
        }
        if (line.empty() || line.back() != '\r') {
            m_refusal = 400;
            return 0;
        }
        const std::string_view text = line.substr(0, line.size() - 1);
        if (text.empty()) {
            break;
        }
        m_refusal = problemOf(text);
        if (m_refusal != 0) {
            return 0;
        }
        m_line = end + 1;
    }
    const std::size_t length = m_line + 2;
    if (parse(bytes.substr(0, length)) != length && m_refusal == 0) {
        m_refusal = 400;
    }
    if (m_refusal == 0) {
        m_refusal = refusalOfHead();
    }
    if (m_refusal == 0) {
        body.reserve(content_length().value_or(0) + 1);
        body_limit(protocol::kMaxRequestBytes);
    }
    return length;
}

int HttpRequest::problemOf(std::string_view line) {
    const bool isFirst = m_line == 0;
    if (isFirst && !(line.front() >= 'A' && line.front() <= 'Z')) {
        return 400;  // such as TLS at a port without it
    }
    if (line.size() > kMaxLineBytes) {
        return isFirst ? 414 : 400;
    }
    return isFirst || isFramingClear(line) ? 0 : 400;
}

bool HttpRequest::isFramingClear(std::string_view line) {
    if (isBlank(line.front())) {
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

int HttpRequest::refusalOfHead() const {
    if (m_version == 10 && chunked()) {
        return 400;  // there is no such thing
    }
    if (!m_knownPath) {
        return 404;
    }
    if (!m_isPost) {
        return 405;
    }
    if (!m_isJson || m_isEncoded) {
        return 415;
    }
    return content_length().value_or(0) > protocol::kMaxRequestBytes ? 413 : 0;
}

std::size_t HttpRequest::parse(std::string_view bytes) {
    Error error;
    const std::size_t used = put(boost::asio::buffer(bytes), error);
    const bool isBroken = error && error != http::error::need_more;
    // Of a length that is a number, unless a trailer gives it.
    const bool isTooLong = error == http::error::bad_content_length && !is_header_done();
    if (error == http::error::body_limit || isTooLong) {
        m_refusal = 413;
    } else if (isBroken || (!is_done() && hasBareLineFeed(bytes.substr(used)))) {
        m_refusal = 400;  // also for lines about chunks, for whose end the parser would wait
    }
    return used;
}

void HttpRequest::on_request_impl(http::verb verb, Text, Text target, int version, Error&) {
    m_isPost = verb == http::verb::post;
    m_knownPath = std::find(m_paths.begin(), m_paths.end(), viewOf(target)) != m_paths.end();
    m_version = version;
    body_limit(boost::none);  // comes last of what is looked at
}

void HttpRequest::on_field_impl(http::field field, Text, Text value, Error& error) {
    if (is_header_done()) {
        error = http::error::bad_field;  // a trailer
    } else if (field == http::field::content_type) {
        const std::string_view type = viewOf(value);
        m_isJson = qel_ascii_equal(type.substr(0, type.find_first_of("; \t")), protocol::kContentType);
    } else if (field == http::field::content_encoding) {
        m_isEncoded = true;
    } else if (field == http::field::expect) {
        m_expectsContinue = qel_ascii_equal(viewOf(value), "100-continue");
    }
}

std::size_t HttpRequest::on_body_impl(Text bytes, Error&) {
    m_expectsContinue = false;
    body.insert(body.end(), bytes.begin(), bytes.end());
    return bytes.size();
}

void HttpRequest::on_chunk_header_impl(std::uint64_t, Text extension, Error& error) {
    if (!extension.empty()) {
        error = http::error::bad_chunk_extension;
    }
}

std::size_t HttpRequest::on_chunk_body_impl(std::uint64_t, Text bytes, Error& error) {
    return on_body_impl(bytes, error);
}

}  // namespace dsessd
