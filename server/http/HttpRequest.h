/// One request of HTTP/1.1 while it arrives: Boost.Beast reads it, HeadCheck refuses what Beast takes although two
/// readers could see two requests in it. Trailers and extensions of chunks are refused too.
#pragma once

#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/vector_body.hpp>

#include <cassert>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/SecretBuffer.h"
#include "server/http/HeadCheck.h"

namespace dsessd {

/// Takes the bytes of one request: first the head, then the body, whose length or chunks it follows. Used by one
/// thread.
class HttpRequest {
  public:
    /// `paths`: what may be posted to.
    explicit HttpRequest(const std::vector<std::string>& paths);
    HttpRequest(const HttpRequest&) = delete;
    HttpRequest& operator=(const HttpRequest&) = delete;

    /// Takes what has arrived and was not taken yet, the head first and alone; gives how much of it was used. The rest
    /// has to come again, with more behind it if nothing was used; when this request is done it belongs to the next.
    std::size_t take(std::string_view bytes);

    bool done() const { return m_isLastChunkTaken || m_parser.is_done(); }
    /// The status of HTTP that it is refused with; 0: it is not.
    int refusal() const { return m_refusal; }
    /// Whether the client waits to be told to send the body.
    bool expectsContinue() const;
    /// It was told.
    void continued() { m_isContinued = true; }
    /// Whether another request may follow on the connection.
    bool keepAlive() const { return takesChunks() && m_parser.keep_alive(); }
    /// Whether its answer may come in chunks.
    bool takesChunks() const { return m_parser.get().version() == 11; }
    /// To be called once, when it is done.
    SecretBuffer takeBody() {
        assert(done());
        return std::exchange(m_parser.get().body(), {});
    }

  private:
    using Parser = boost::beast::http::request_parser<boost::beast::http::vector_body<char, WipingAllocator<char>>>;

    std::size_t takeHead(std::string_view bytes);
    std::size_t takeBody(std::string_view bytes);
    int refusalOfHead() const;
    /// `bytes`: from the end of the chunk before it on, with the whole line of its size. Gives how much of it was used,
    /// as take() does.
    std::size_t takeLastChunk(std::string_view bytes);
    std::size_t parse(std::string_view bytes);

    /// Refuses extensions of chunks, and stops Beast before the trailers, which its releases treat differently.
    struct ChunkCheck {
        void operator()(std::uint64_t size, boost::beast::string_view extension, boost::beast::error_code& error) const;
    };

    const std::vector<std::string>& m_paths;
    HeadCheck m_check;
    ChunkCheck m_chunkCheck;
    Parser m_parser;
    int m_refusal = 0;
    bool m_isContinued = false;
    bool m_isAtLastChunk = false;
    bool m_isLastChunkTaken = false;
};

}  // namespace dsessd
