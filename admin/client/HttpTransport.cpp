#include "admin/client/HttpTransport.h"

#include <malloc.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <string_view>

#include "admin/client/Interruption.h"
#include "protocol/protocol.h"
#include "runtime/qel_ascii.h"

namespace olmdsess {

namespace {

constexpr char kCutShort[] = "it was cut short";
constexpr char kNoConnection[] = "no connection";
constexpr char kHeadTooLong[] = "its head is too long";
constexpr char kNotHttp[] = "it is not HTTP/1.1";
constexpr char kTooLong[] = "it is too long";

std::string_view withoutBlanks(std::string_view text) {
    const char* const blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

Attempt failed(AttemptFailure failure, std::string cause) {
    Attempt attempt;
    attempt.failure = failure;
    attempt.cause = std::move(cause);
    return attempt;
}

Attempt notUnderstood(const std::string& why) {
    return failed(AttemptFailure::kNotUnderstood, "answer not understood: " + why);
}

Attempt httpStatusFailure(int status) {
    const std::string cause = "HTTP status " + std::to_string(status) +
                              (status == 404 ? ": no session server is there, or not this instance of it" : "");
    if (status == 404) {
        return failed(AttemptFailure::kNotServed, cause);
    }
    if (status == 503) {
        return failed(AttemptFailure::kBusy, cause + ": the server cannot take more requests now");
    }
    if (status >= 400 && status < 600) {
        return failed(status < 500 ? AttemptFailure::kRefused : AttemptFailure::kFailed, cause);
    }
    return notUnderstood(cause);  // a redirection, for one, which no session server sends
}

/// What happens to one request on its way: filled by libcurl's callbacks.
class Exchange {
  public:
    /// `sent` counts how often any of the request can have left, and outlives the object.
    Exchange(const std::string& url, const AttemptLimits& limits, TlsPolicy& tlsPolicy, int& sent)
        : secure(qel_ascii_equal(std::string_view(url).substr(0, 6), "https:")),
          policy(tlsPolicy),
          m_limits(limits),
          m_sent(sent) {}

    /// A connection is about to be made, perhaps in place of a kept one that turned out to be closed: what that one
    /// failed of is no longer the cause.
    void onConnecting() {
        m_sentHere = false;
        policy.beginConnection();
    }

    /// The connection is there and the request is about to be sent, perhaps for another time.
    void onConnected() {
        ++m_sent;
        m_sentHere = true;
        m_answered = m_limits.leavesTime ? Clock::now() + (m_limits.end - Clock::now()) / 2 : m_limits.end;
    }

    bool onHeader(std::string_view line) {
        m_headBytes += line.size();
        if (m_headBytes > kMaxHeadBytes) {
            return refuse(notUnderstood(kHeadTooLong));
        }
        if (m_inBody) {
            return true;  // a trailer
        }
        if (line.substr(0, 5) == "HTTP/") {
            // "HTTP/1.1 200 OK"; an interim answer (1xx) is followed by another one.
            const std::size_t blank = line.find(' ');
            m_status = 0;
            m_isJson = false;
            if (blank != std::string_view::npos) {
                std::from_chars(line.data() + blank + 1, line.data() + line.size(), m_status);
            }
            return true;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) {
            return withoutBlanks(line).empty() && m_status >= 200 ? onHeadComplete() : true;
        }
        return onField(withoutBlanks(line.substr(0, colon)), withoutBlanks(line.substr(colon + 1)));
    }

    bool onBody(const char* bytes, std::size_t count) {
        if (text.size() + count > protocol::kMaxAnswerBytes) {
            return refuse(notUnderstood(kTooLong));
        }
        text.append(bytes, count);
        m_lastByte = Clock::now();
        m_windowBytes += static_cast<long>(count);
        return true;
    }

    /// When the exchange has to end unless something more comes.
    Clock::time_point deadline() {
        if (!m_inBody) {
            return m_sentHere ? m_answered : m_limits.end;
        }
        const auto now = Clock::now();
        if (now >= m_windowStart + m_limits.silence && m_windowBytes >= leastBytesPerWindow()) {
            m_windowStart = now;
            m_windowBytes = 0;
        }
        const auto windowEnd = m_windowStart + m_limits.silence;
        const auto silenceEnd = m_lastByte + m_limits.silence;
        return m_windowBytes < leastBytesPerWindow() ? std::min(windowEnd, silenceEnd) : silenceEnd;
    }

    void onInterruption() { m_refusal = failed(AttemptFailure::kInterrupted, "interrupted"); }

    /// Whether it was sent on the connection in hand.
    bool sentHere() const { return m_sentHere; }
    bool begun() const { return m_headBytes > 0; }
    bool inBody() const { return m_inBody; }
    Clock::duration flowed() const { return m_windowStart - m_bodyStart; }
    /// Why a callback refused what came; no failure when none did.
    Attempt takeRefusal() { return std::move(m_refusal); }
    bool refused() const { return m_refusal.failure != AttemptFailure::kNone; }
    const bool secure;
    TlsPolicy& policy;
    bool outOfMemory = false;
    std::string text;
    char error[CURL_ERROR_SIZE] = "";

  private:
    bool refuse(Attempt refusal) {
        m_refusal = std::move(refusal);
        return false;
    }

    bool onField(std::string_view name, std::string_view value) {
        if (qel_ascii_equal(name, "Content-Type")) {
            m_isJson = qel_ascii_equal(withoutBlanks(value.substr(0, value.find(';'))), protocol::kContentType);
        } else if (qel_ascii_equal(name, "Content-Encoding")) {
            m_isEncoded = m_isEncoded || !qel_ascii_equal(value, "identity");
        } else if (qel_ascii_equal(name, "Transfer-Encoding")) {
            m_isEncoded = m_isEncoded || !qel_ascii_equal(value, "chunked");
        }
        return true;
    }

    bool onHeadComplete() {
        if (m_status != 200) {
            return refuse(httpStatusFailure(m_status));
        }
        if (m_isEncoded) {
            return refuse(notUnderstood("it is compressed"));
        }
        if (!m_isJson) {
            return refuse(notUnderstood(std::string("its type is not ") + protocol::kContentType));
        }
        m_inBody = true;
        m_bodyStart = m_windowStart = m_lastByte = Clock::now();
        return true;
    }

    long leastBytesPerWindow() const {
        return kLeastBytesPerSecond * std::chrono::duration_cast<std::chrono::milliseconds>(m_limits.silence).count() /
               1000;
    }

    const AttemptLimits m_limits;
    int& m_sent;
    bool m_sentHere = false;
    Clock::time_point m_answered;
    bool m_inBody = false;
    bool m_isJson = false;
    bool m_isEncoded = false;
    int m_status = 0;
    std::size_t m_headBytes = 0;
    Clock::time_point m_bodyStart;
    Clock::time_point m_windowStart;
    Clock::time_point m_lastByte;
    long m_windowBytes = 0;
    Attempt m_refusal;
};

/// Runs a callback's body: false, or memory that ran out, ends the transfer.
template <class Body>
bool guarded(void* exchange, Body body) noexcept {
    try {
        return body(*static_cast<Exchange*>(exchange));
    } catch (const std::bad_alloc&) {
        static_cast<Exchange*>(exchange)->outOfMemory = true;
        return false;
    }
}

int connectingCallback(void* exchange, curl_socket_t, curlsocktype) {
    static_cast<Exchange*>(exchange)->onConnecting();
    return CURL_SOCKOPT_OK;
}

int connectedCallback(void* exchange, char*, char*, int, int) {
    static_cast<Exchange*>(exchange)->onConnected();
    return CURL_PREREQFUNC_OK;
}

std::size_t headerCallback(char* line, std::size_t, std::size_t length, void* exchange) {
    return guarded(exchange, [&](Exchange& it) { return it.onHeader({line, length}); }) ? length : 0;
}

std::size_t bodyCallback(char* bytes, std::size_t, std::size_t count, void* exchange) {
    // A count other than the one given ends the transfer, also for the empty piece that libcurl may pass.
    return guarded(exchange, [&](Exchange& it) { return it.onBody(bytes, count); }) ? count : count + 1;
}

CURLcode tlsCallback(CURL*, void* context, void* policy) {
    return static_cast<TlsPolicy*>(policy)->configure(static_cast<SSL_CTX*>(context)) ? CURLE_OK
                                                                                      : CURLE_SSL_CERTPROBLEM;
}

template <class Value>
void set(CURL* easy, CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(easy, option, value);
    if (code == CURLE_OUT_OF_MEMORY) {
        throw std::bad_alloc();
    }
    if (code != CURLE_OK) {
        throw std::runtime_error(curl_easy_strerror(code));
    }
}

long milliseconds(Clock::duration duration) {
    const auto count = std::chrono::ceil<std::chrono::milliseconds>(duration).count();
    return static_cast<long>(std::clamp<decltype(count)>(count, 0, std::numeric_limits<int>::max()));
}

constexpr std::size_t kReceiveBytes = std::size_t{256} * 1024;
// A buffer that grows doubles: none that a request goes into becomes as large as the one for what is received.
static_assert(2 * (protocol::kMaxRequestBytes + kMaxHeadBytes) <= kReceiveBytes);

void wipingFree(void* block) {
    if (block == nullptr) {
        return;
    }
    if (const std::size_t size = malloc_usable_size(block); size < kReceiveBytes) {
        explicit_bzero(block, size);
    }
    std::free(block);
}

/// Whether an allocation failed in the request in hand. libcurl ends in CURLE_OUT_OF_MEMORY also when a line is longer
/// than it takes, which is no lack of memory. It allocates on its name lookup's thread too.
std::atomic<bool> allocationFailed = false;

template <class Block>
Block* noted(Block* block) {
    allocationFailed = allocationFailed || block == nullptr;
    return block;
}

void* notingMalloc(std::size_t size) {
    return noted(std::malloc(size));
}

void* notingCalloc(std::size_t count, std::size_t size) {
    return noted(std::calloc(count, size));
}

char* notingStrdup(const char* text) {
    return noted(strdup(text));
}

void* wipingRealloc(void* block, std::size_t size) {
    void* larger = notingMalloc(size);
    if (larger != nullptr && block != nullptr) {
        std::memcpy(larger, block, std::min(size, malloc_usable_size(block)));
        wipingFree(block);
    }
    return larger;
}

/// Lends the easy handle to the multi handle. Taking it back closes a connection that is not at rest.
class Transfer {
  public:
    Transfer(CURLM* multi, CURL* easy) : m_multi(multi), m_easy(easy) {
        if (curl_multi_add_handle(m_multi, m_easy) != CURLM_OK) {
            throw std::bad_alloc();
        }
    }
    ~Transfer() { curl_multi_remove_handle(m_multi, m_easy); }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// Runs until libcurl is done, until the exchange's deadline, or until it is interrupted.
    CURLcode run(Exchange& exchange) {
        for (;;) {
            int running = 0;
            int queued = 0;
            if (curl_multi_perform(m_multi, &running) != CURLM_OK) {
                return CURLE_OUT_OF_MEMORY;
            }
            if (const CURLMsg* message = curl_multi_info_read(m_multi, &queued)) {
                return message->data.result;
            }
            const auto deadline = exchange.deadline();
            const auto now = Clock::now();
            if (now >= deadline) {
                return CURLE_OPERATION_TIMEDOUT;
            }
            if (interruption::isOn()) {
                exchange.onInterruption();
                return CURLE_ABORTED_BY_CALLBACK;
            }
            curl_waitfd interrupted{interruption::descriptor(), CURL_WAIT_POLLIN, 0};
            const int patience = static_cast<int>(milliseconds(deadline - now));
            if (const CURLMcode code = curl_multi_poll(m_multi, &interrupted, 1, patience, nullptr); code != CURLM_OK) {
                return code == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_RECV_ERROR;
            }
            if (interrupted.revents != 0) {
                interruption::rest();
            }
        }
    }

  private:
    CURLM* m_multi;
    CURL* m_easy;
};

std::string timeoutCause(CURL* easy, const Exchange& exchange) {
    if (exchange.inBody()) {
        return "the rest of the answer did not come in time";
    }
    if (exchange.sentHere()) {
        return "no answer in time";
    }
    curl_off_t lookedUp = 0;
    curl_easy_getinfo(easy, CURLINFO_NAMELOOKUP_TIME_T, &lookedUp);
    return exchange.policy.handshakeBegun() ? "no TLS handshake in time"
           : lookedUp == 0                  ? "name lookup failed: no answer in time"
                                            : "no connection in time";
}

int systemError(CURL* easy) {
    long number = 0;
    curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &number);
    return static_cast<int>(number);
}

std::string systemCause(CURL* easy, const char* otherwise) {
    const int number = systemError(easy);
    if (number == ECONNREFUSED) {
        return "connection refused";
    }
    return number == 0 ? otherwise : std::string(otherwise) + ": " + std::strerror(number);
}

/// libcurl's words for a failed handshake, but for those in which it says that the connection simply ended.
std::string handshakeCause(std::string_view words) {
    const auto says = [words](const char* what) { return words.find(what) != std::string_view::npos; };
    const bool ended = says("SSL_ERROR_SYSCALL") || says("unexpected eof") || says("Connection reset");
    if (says("wrong version number")) {
        return "no TLS connection: what answers there does not speak TLS";
    }
    return "no TLS connection: " + (ended ? "the server ended the connection in the handshake" : std::string(words));
}

/// Why no secure connection came about, or empty when it is not of that.
std::string tlsCause(CURLcode code, const Exchange& exchange) {
    const TlsPolicy& policy = exchange.policy;
    if (!policy.certificateProblem().empty()) {
        return "the server's certificate " + policy.certificateProblem();
    }
    if (policy.certificateAlert() != nullptr) {
        return std::string("our certificate was refused: ") + policy.certificateAlert() +
               (policy.hasIdentity() ? " (" + policy.identityText() + ")" : ", and the key file holds none");
    }
    if (exchange.sentHere()) {
        return {};
    }
    switch (code) {
        case CURLE_PEER_FAILED_VERIFICATION:
            return std::string("the server's certificate: ") + exchange.error;
        case CURLE_COULDNT_CONNECT:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_USE_SSL_FAILED:
            return handshakeCause(exchange.error);
        default:
            return {};
    }
}

/// Whether the server said that it did nothing.
bool isRefusal(AttemptFailure failure, const TlsPolicy& policy) {
    switch (failure) {
        case AttemptFailure::kRefused:
        case AttemptFailure::kNotServed:
        case AttemptFailure::kBusy:
            return true;
        case AttemptFailure::kTls:
            return policy.refusalProven();
        default:
            return false;
    }
}

/// What libcurl's result means.
Attempt judge(CURL* easy, CURLcode code, Exchange& exchange) {
    if (exchange.refused()) {
        return exchange.takeRefusal();
    }
    switch (code) {
        case CURLE_OK:
            return exchange.inBody() ? Attempt() : notUnderstood(kCutShort);
        case CURLE_COULDNT_RESOLVE_HOST:
            return failed(AttemptFailure::kUnreachable, "name lookup failed");
        case CURLE_URL_MALFORMAT:
        case CURLE_LOGIN_DENIED:
            return failed(AttemptFailure::kUnreachable, "this is not a usable URL");
        case CURLE_COULDNT_CONNECT:
            if (exchange.secure && systemError(easy) == ECONNRESET) {
                break;  // as the same reset a moment later, in the handshake
            }
            return failed(AttemptFailure::kUnreachable, systemCause(easy, kNoConnection));
        case CURLE_OPERATION_TIMEDOUT:
            return failed(AttemptFailure::kTimedOut, timeoutCause(easy, exchange));
        case CURLE_OUT_OF_MEMORY:
            return notUnderstood(kHeadTooLong);  // a line of more than 100 KiB
        case CURLE_FILESIZE_EXCEEDED:
            return notUnderstood(kTooLong);
        default:
            break;
    }
    if (exchange.begun()) {
        return notUnderstood(code == CURLE_PARTIAL_FILE || code == CURLE_RECV_ERROR ? kCutShort : kNotHttp);
    }
    if (code == CURLE_UNSUPPORTED_PROTOCOL || code == CURLE_WEIRD_SERVER_REPLY) {
        return exchange.sentHere() ? notUnderstood(kNotHttp)
                                   : failed(AttemptFailure::kUnreachable, "this is not a usable URL");
    }
    if (std::string cause = tlsCause(code, exchange); !cause.empty()) {
        return failed(AttemptFailure::kTls, std::move(cause));
    }
    const char* cause = !exchange.sentHere() ? kNoConnection
                        : exchange.secure    ? "the connection ended before an answer"
                                             : "the connection ended before an answer, as by a server that expects TLS";
    return failed(AttemptFailure::kUnreachable, systemCause(easy, cause));
}

}  // namespace

HttpTransport::CurlLibrary::CurlLibrary() {
    // libcurl copies a request to put it behind its head.
    if (curl_global_init_mem(CURL_GLOBAL_DEFAULT, notingMalloc, wipingFree, wipingRealloc, notingStrdup,
                             notingCalloc) != CURLE_OK) {
        throw std::bad_alloc();
    }
}

HttpTransport::CurlLibrary::~CurlLibrary() {
    curl_global_cleanup();
}

HttpTransport::HttpTransport(TlsPolicy& policy) : m_policy(policy), m_multi(curl_multi_init()) {
    const std::string type = protocol::kContentType;
    for (const std::string& header : {"Content-Type: " + type, "Accept: " + type, std::string("Expect:")}) {
        curl_slist* longer = curl_slist_append(m_headers.get(), header.c_str());
        if (longer == nullptr) {
            throw std::bad_alloc();
        }
        static_cast<void>(m_headers.release());
        m_headers.reset(longer);
    }
    if (m_multi == nullptr) {
        throw std::bad_alloc();
    }
    curl_multi_setopt(m_multi.get(), CURLMOPT_MAXCONNECTS, 1L);
    static_cast<void>(makeEasy());  // shows what libcurl lacks before it is needed
}

HttpTransport::~HttpTransport() = default;

HttpTransport::EasyPtr HttpTransport::makeEasy() const {
    EasyPtr owner(curl_easy_init());
    if (owner == nullptr) {
        throw std::bad_alloc();
    }
    CURL* easy = owner.get();
    // libcurl keeps SIGPIPE from the process while it writes, unless told that there is no need: eight system calls a
    // request.
    struct sigaction pipe {};
    sigaction(SIGPIPE, nullptr, &pipe);
    set(easy, CURLOPT_NOSIGNAL, pipe.sa_handler == SIG_IGN ? 1L : 0L);
    set(easy, CURLOPT_POST, 1L);
    set(easy, CURLOPT_HTTPHEADER, m_headers.get());
    set(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    set(easy, CURLOPT_HTTP09_ALLOWED, 0L);
    set(easy, CURLOPT_FOLLOWLOCATION, 0L);
    set(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    set(easy, CURLOPT_PROXY, "");  // empty: none, whatever the environment says
    set(easy, CURLOPT_DISALLOW_USERNAME_IN_URL, 1L);
    set(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(protocol::kMaxAnswerBytes));
    set(easy, CURLOPT_BUFFERSIZE, static_cast<long>(kReceiveBytes));
    set(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    set(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    set(easy, CURLOPT_SSL_VERIFYHOST, m_policy.namesServers() ? 0L : 2L);
    if (m_policy.hasOwnAnchors()) {
        set(easy, CURLOPT_CAINFO, static_cast<char*>(nullptr));
        set(easy, CURLOPT_CAPATH, static_cast<char*>(nullptr));
        set(easy, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NO_PARTIALCHAIN));  // the policy says how far
    }
    set(easy, CURLOPT_SSL_CTX_FUNCTION, tlsCallback);
    set(easy, CURLOPT_SSL_CTX_DATA, &m_policy);
    // A name lookup that hangs is left behind rather than waited for.
    set(easy, CURLOPT_QUICK_EXIT, 1L);
    set(easy, CURLOPT_SOCKOPTFUNCTION, connectingCallback);
    set(easy, CURLOPT_PREREQFUNCTION, connectedCallback);
    set(easy, CURLOPT_HEADERFUNCTION, headerCallback);
    set(easy, CURLOPT_WRITEFUNCTION, bodyCallback);
    return owner;
}

Attempt HttpTransport::post(const std::string& url, const SecretBuffer& body, const AttemptLimits& limits) noexcept {
    int sent = 0;
    try {
        bool fresh = false;
        Attempt attempt = perform(fresh, sent, url, body, limits);
        if (!fresh && sent > 0 && attempt.failure == AttemptFailure::kUnreachable) {
            // The server closed the kept connection just when it was to be used again.
            fresh = true;
            attempt = perform(fresh, sent, url, body, limits);
        }
        return attempt;
    } catch (const std::exception&) {
        Attempt attempt;
        attempt.failure = AttemptFailure::kNoMemory;
        attempt.mayHaveActed = sent > 0;
        return attempt;
    }
}

Attempt HttpTransport::perform(bool& fresh, int& sent, const std::string& url, const SecretBuffer& body,
                               const AttemptLimits& limits) {
    Exchange exchange(url, limits, m_policy, sent);
    // One for each request: libcurl before 8.0 keeps a pointer into the head of the last answer, which is gone, and
    // goes there when the next answer's head begins with a continuation line.
    const EasyPtr owner = makeEasy();
    CURL* easy = owner.get();
    set(easy, CURLOPT_URL, url.c_str());
    set(easy, CURLOPT_POSTFIELDS, body.data());
    set(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    set(easy, CURLOPT_FRESH_CONNECT, fresh ? 1L : 0L);
    // For libcurl to divide between several addresses of one name; 0 would mean its own default.
    set(easy, CURLOPT_CONNECTTIMEOUT_MS, std::max(1L, milliseconds(limits.end - Clock::now())));
    set(easy, CURLOPT_SOCKOPTDATA, &exchange);
    set(easy, CURLOPT_PREREQDATA, &exchange);
    set(easy, CURLOPT_HEADERDATA, &exchange);
    set(easy, CURLOPT_WRITEDATA, &exchange);
    set(easy, CURLOPT_ERRORBUFFER, exchange.error);
    m_policy.beginConnection();
    allocationFailed = false;

    const CURLcode code = Transfer(m_multi.get(), easy).run(exchange);
    // Once the request is sent, libcurl allocates by our functions alone: without a failure of theirs, a line was too
    // long for it. With one, whatever it says has that for its cause.
    if (exchange.outOfMemory || (code != CURLE_OK && allocationFailed) ||
        (code == CURLE_OUT_OF_MEMORY && !exchange.sentHere())) {
        throw std::bad_alloc();
    }
    long connectionsMade = 0;
    curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &connectionsMade);
    fresh = connectionsMade > 0;
    Attempt attempt = judge(easy, code, exchange);
    // What was said of the last time is not said of one before it.
    attempt.mayHaveActed = sent > (isRefusal(attempt.failure, m_policy) ? 1 : 0);
    attempt.flowed = exchange.flowed();
    if (attempt.failure == AttemptFailure::kNone) {
        attempt.text = std::move(exchange.text);
    }
    return attempt;
}

}  // namespace olmdsess
