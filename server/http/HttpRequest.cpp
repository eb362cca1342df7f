#include "server/http/HttpRequest.h"

#include <algorithm>

#include "protocol/protocol.h"
#include "runtime/qel_ascii.h"

namespace dsessd {

namespace {

namespace http = boost::beast::http;

/// The end of a chunk and the line that gives the size of the next one.
constexpr std::size_t kMaxChunkLineBytes = 64;
constexpr std::size_t kLastChunkBytes = std::string_view("0\r\n\r\n").size();
constexpr std::string_view kLineEnd = "\r\n";

std::string_view viewOf(boost::beast::string_view text) {
    return {text.data(), text.size()};
}

bool hasBareLineFeed(std::string_view text) {
    for (std::size_t at = text.find('\n'); at != text.npos; at = text.find('\n', at + 1)) {
        if (at == 0 || text[at - 1] != '\r') {
            return true;
        }
    }
    return false;
}

}  // namespace

void HttpRequest::ChunkCheck::operator()(std::uint64_t size, boost::beast::string_view extension,
                                         boost::beast::error_code& error) const {
    if (!extension.empty()) {
        error = http::error::bad_chunk_extension;
    } else if (size == 0) {
        error = http::error::end_of_chunk;
    }
}

HttpRequest::HttpRequest(const std::vector<std::string>& paths) : m_paths(paths) {
    m_parser.header_limit(HeadCheck::kMaxHeadBytes);
    m_parser.body_limit(boost::none);  // the limit comes later: other refusals go first
    m_parser.on_chunk_header(m_chunkCheck);
}

std::size_t HttpRequest::take(std::string_view bytes) {
    assert(!done() && m_refusal == 0);
    return m_parser.is_header_done() ? takeBody(bytes) : takeHead(bytes);
}

std::size_t HttpRequest::takeHead(std::string_view bytes) {
    m_refusal = m_check.take(bytes);
    const std::size_t length = m_check.length();
    if (m_refusal != 0 || length == 0) {
        return 0;
    }
    if (parse(bytes.substr(0, length)) != length && m_refusal == 0) {
        m_refusal = 400;
    }
    if (m_refusal == 0) {
        m_refusal = refusalOfHead();
        m_parser.body_limit(protocol::kMaxRequestBytes);
        m_parser.eager(true);
    }
    return length;
}

int HttpRequest::refusalOfHead() const {
    const auto& head = m_parser.get();
    if (head.version() == 10 ? m_parser.chunked() : !m_check.hasHost()) {
        return 400;  // HTTP/1.0 has no chunks, and later versions no request without a host
    }
    if (std::find(m_paths.begin(), m_paths.end(), viewOf(head.target())) == m_paths.end()) {
        return 404;
    }
    if (head.method() != http::verb::post) {
        return 405;
    }
    const std::string_view type = viewOf(head[http::field::content_type]);
    const bool isJson = qel_ascii_equal(type.substr(0, type.find_first_of("; \t")), protocol::kContentType);
    if (!isJson || head.count(http::field::content_encoding) != 0) {
        return 415;
    }
    return m_parser.content_length().value_or(0) > protocol::kMaxRequestBytes ? 413 : 0;
}

bool HttpRequest::expectsContinue() const {
    return m_parser.is_header_done() && !done() && !m_isContinued && m_parser.get().body().empty() &&
           qel_ascii_equal(viewOf(m_parser.get()[http::field::expect]), "100-continue");
}

std::size_t HttpRequest::takeBody(std::string_view bytes) {
    // Beast has an assertion that fails when the last chunk of an empty body arrives in pieces. So wait for all of it.
    const bool isTooLittle = m_parser.chunked() && m_parser.get().body().empty() && bytes.size() < kLastChunkBytes;
    std::size_t used = isTooLittle ? 0 : parse(bytes);
    if (m_isAtLastChunk) {
        used += takeLastChunk(bytes.substr(used));
    }
    const std::string_view line = done() ? std::string_view() : bytes.substr(used);
    if (m_refusal == 0 && (line.size() > kMaxChunkLineBytes || hasBareLineFeed(line))) {
        m_refusal = 400;
    }
    return used;
}

std::size_t HttpRequest::takeLastChunk(std::string_view bytes) {
    const std::size_t end = bytes.find('\n', bytes.find('0')) + 1;
    const std::string_view after = bytes.substr(end, kLineEnd.size());
    m_isLastChunkTaken = after == kLineEnd;
    if (!kLineEnd.starts_with(after)) {
        m_refusal = 400;
    }
    return m_isLastChunkTaken ? end + kLineEnd.size() : 0;
}

std::size_t HttpRequest::parse(std::string_view bytes) {
    boost::beast::error_code error;
    const std::size_t used = m_parser.put(boost::asio::buffer(bytes), error);
    m_isAtLastChunk = error == http::error::end_of_chunk;
    // HeadCheck lets only digits through, so a length that Beast complains of is a number that is too large.
    if (error == http::error::body_limit || error == http::error::bad_content_length) {
        m_refusal = 413;
    } else if (error && error != http::error::need_more && !m_isAtLastChunk) {
        m_refusal = 400;
    }
    return used;
}

}  // namespace dsessd
