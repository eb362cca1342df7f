/// One request of HTTP/1.1 while it arrives. Boost.Beast parses it; what Beast takes although two readers could see two
/// requests in it is refused here: lines that are folded or end in a bare line feed, lengths that come twice, in a list
/// or beside a transfer encoding, extensions of chunks and trailers.
#pragma once

#include <boost/beast/http/basic_parser.hpp>

#include <string>
#include <string_view>
#include <vector>

#include "runtime/SecretBuffer.h"

namespace dsessd {

class HttpRequest final : private boost::beast::http::basic_parser<true> {
  public:
    /// The longest head, and the longest line of one, in bytes.
    static constexpr std::size_t kMaxHeadBytes = 16'384;
    static constexpr std::size_t kMaxLineBytes = 8'192;

    /// `paths`: what may be posted to.
    explicit HttpRequest(const std::vector<std::string>& paths) : m_paths(paths) { header_limit(kMaxHeadBytes); }

    /// Takes what has arrived and was not taken yet; gives how much of it was used. The rest has to come again with
    /// more behind it, or belongs to the next request when this one is done.
    std::size_t take(std::string_view bytes);

    bool done() const { return is_done(); }
    /// The status of HTTP that it is refused with; 0: it is not.
    int refusal() const { return m_refusal; }
    /// Whether the client waits to be told to send the body.
    bool expectsContinue() const { return m_expectsContinue && is_header_done() && !is_done(); }
    /// It was told.
    void continued() { m_expectsContinue = false; }
    /// Whether another request may follow on the connection.
    bool keepAlive() const { return m_version == 11 && keep_alive(); }
    /// Whether its answer may come in chunks.
    bool takesChunks() const { return m_version == 11; }
    SecretBuffer body;

  private:
    using Error = boost::beast::error_code;
    using Text = boost::beast::string_view;

    std::size_t takeHead(std::string_view bytes);
    int problemOf(std::string_view line);
    bool isFramingClear(std::string_view line);
    int refusalOfHead() const;
    std::size_t parse(std::string_view bytes);

    void on_request_impl(boost::beast::http::verb verb, Text method, Text target, int version, Error& error) override;
    void on_response_impl(int, Text, int, Error&) override {}
    void on_field_impl(boost::beast::http::field field, Text name, Text value, Error& error) override;
    void on_header_impl(Error&) override {}
    void on_body_init_impl(const boost::optional<std::uint64_t>&, Error&) override {}
    std::size_t on_body_impl(Text bytes, Error& error) override;
    void on_chunk_header_impl(std::uint64_t size, Text extension, Error& error) override;
    std::size_t on_chunk_body_impl(std::uint64_t left, Text bytes, Error& error) override;
    void on_finish_impl(Error&) override {}

    const std::vector<std::string>& m_paths;
    int m_refusal = 0;
    /// Where the line of the head begins that was not looked at yet.
    std::size_t m_line = 0;
    bool m_hasHost = false;
    /// Whether a line said how long the body is.
    bool m_framed = false;
    int m_version = 0;
    bool m_knownPath = false;
    bool m_isPost = false;
    bool m_isJson = false;
    bool m_isEncoded = false;
    bool m_expectsContinue = false;
};

}  // namespace dsessd
