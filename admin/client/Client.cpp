#include "admin/client/Client.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>

#include "admin/client/Interruption.h"
#include "protocol/protocol.h"
#include "runtime/qel_messages.h"
#include "runtime/qel_utf8.h"

namespace olmdsess {

namespace {

constexpr std::size_t kExcerptBytes = 2048;

struct ErrorStatus {
    const char* name;
    std::uint32_t status;
};

constexpr ErrorStatus kErrorStatuses[] = {
    {protocol::error::kIdentityRefused, kStatusIdentityRefused},
    {protocol::error::kNotPermitted, kStatusNotPermitted},
    {protocol::error::kUnknownRealm, kStatusUnknownRealm},
    {protocol::error::kUnknownReplicaSet, kStatusUnknownReplicaSet},
    {protocol::error::kNoMatchingSession, kStatusNoMatchingSession},
    {protocol::error::kInvalidValue, kStatusRequestRefused},
    {protocol::error::kInvalidRequest, kStatusRequestRefused},
    {protocol::error::kServerFailure, kStatusServerFailed},
};

std::uint32_t statusOf(AttemptFailure failure) {
    switch (failure) {
        case AttemptFailure::kTimedOut:
            return kStatusTimedOut;
        case AttemptFailure::kTls:
            return kStatusTlsFailure;
        case AttemptFailure::kRefused:
            return kStatusRequestRefused;
        case AttemptFailure::kNotServed:
            return kStatusInstanceNotServed;
        case AttemptFailure::kNotUnderstood:
            return kStatusAnswerNotUnderstood;
        default:
            return kStatusNoLocation;
    }
}

/// Whether the server said, without having looked at it, that it will not do the request.
bool isRefusal(AttemptFailure failure) {
    return failure == AttemptFailure::kRefused || failure == AttemptFailure::kNotServed;
}

void replaceAll(std::string& text, std::string_view what, std::string_view with) {
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
        text.replace(at, what.size(), with);
    }
}

bool isTextOrNull(const char* text) {
    return text == nullptr || qel_utf8_is_text(text);
}

/// What cannot be said in a request is not sent: it would not reach the server as it was meant.
bool canBeSent(const olm_dsess_admin_sec_info_t& security, std::span<const RequestParameter> parameters) {
    return isTextOrNull(security.user_name) && isTextOrNull(security.password) && isTextOrNull(security.login_id) &&
           std::all_of(parameters.begin(), parameters.end(), [](const RequestParameter& parameter) {
               const auto* text = std::get_if<const char*>(&parameter.value);
               return text == nullptr || isTextOrNull(*text);
           });
}

std::string_view contents(const SecretBuffer& buffer) {
    return {buffer.data(), buffer.size()};
}

}  // namespace

Client::Client(std::int32_t timeoutSeconds, std::vector<std::string> urls,
               const olm_dsess_admin_ssl_info_t& tlsSettings, Trace trace)
    : m_timeout(std::chrono::seconds(timeoutSeconds == 0 ? kDefaultTimeoutSeconds : timeoutSeconds)),
      m_urls(std::move(urls)),
      m_trace(trace),
      m_tlsPolicy(tlsSettings, trace),
      m_transport(m_tlsPolicy) {}

std::uint32_t Client::perform(const Operation& operation, const olm_dsess_admin_sec_info_t& security,
                              std::span<const RequestParameter> parameters, Answer& answer) {
    if (!canBeSent(security, parameters)) {
        m_trace.line(kTraceFailure, "the request is not valid UTF-8 and was not sent");
        return kStatusInvalidArgument;
    }
    const std::int32_t id = m_lastId = m_lastId % 1'000'000'000 + 1;
    const Request request{operation, security, id, writeRequest(id, operation.method, security, parameters)};
    if (request.body.size() > protocol::kMaxRequestBytes) {
        m_trace.line(kTraceFailure, "the request is too long and was not sent");
        return kStatusInvalidArgument;
    }
    olm_dsess_admin_sec_info_t shown = security;
    shown.password = security.password == nullptr ? nullptr : "***";
    m_trace.line(kTraceMessage,
                 "request: " + std::string(contents(writeRequest(id, operation.method, shown, parameters))));
    bool sent = false;
    try {
        return tryLocations(request, answer, sent);
    } catch (const std::bad_alloc&) {
        return operation.changes && sent ? kStatusOutcomeUnknown : kStatusNoMemory;
    }
}

std::uint32_t Client::tryLocations(const Request& request, Answer& answer, bool& sent) {
    const auto start = Clock::now();
    auto end = start + m_timeout;
    std::optional<AttemptFailure> failure;
    std::string cause;
    bool alike = true;
    for (std::size_t index = 0; index < m_urls.size(); ++index) {
        if (interruption::isOn()) {
            return kStatusInterrupted;
        }
        const std::string url = m_urls[index];
        const auto now = Clock::now();
        const auto share = (end - now) / static_cast<int>(m_urls.size() - index);
        const auto patience = request.operation.changes ? end - now : share;
        Attempt attempt = tryLocation(url, request, {now + share, now + patience, patience}, answer, sent);
        if (attempt.failure == AttemptFailure::kNone) {
            std::rotate(m_urls.begin(), m_urls.begin() + static_cast<std::ptrdiff_t>(index),
                        m_urls.begin() + static_cast<std::ptrdiff_t>(index) + 1);
            return statusOfAnswer(url, request, answer);
        }
        m_trace.line(kTraceFailure, url + ": " + attempt.cause);
        if (request.operation.changes && attempt.sent) {
            return isRefusal(attempt.failure) ? explained(statusOf(attempt.failure), request, attempt.cause)
                                              : kStatusOutcomeUnknown;
        }
        if (attempt.failure == AttemptFailure::kInterrupted) {
            return kStatusInterrupted;
        }
        end += attempt.flowed;
        alike = alike && failure.value_or(attempt.failure) == attempt.failure;
        failure = attempt.failure;
        cause = std::move(attempt.cause);
    }
    return failure && alike ? explained(statusOf(*failure), request, cause) : kStatusNoLocation;
}

Attempt Client::tryLocation(const std::string& url, const Request& request, const AttemptLimits& limits, Answer& answer,
                            bool& sent) {
    answer = Answer();
    Attempt attempt = m_transport.post(url, request.body, request.operation.changes, limits);
    sent = attempt.sent;
    if (attempt.failure == AttemptFailure::kNoMemory) {
        throw std::bad_alloc();
    }
    if (attempt.failure != AttemptFailure::kNone) {
        return attempt;
    }
    answer.text = std::move(attempt.text);
    m_trace.line(kTraceMessage, "answer: " + excerpt(request, {answer.text.data(), answer.text.size() - 1}));
    const std::string problem = parseAnswer(request.operation.shape, request.id, answer);
    if (!problem.empty()) {
        attempt.failure = AttemptFailure::kNotUnderstood;
        attempt.cause = "answer not understood: " + problem;
    }
    return attempt;
}

std::uint32_t Client::statusOfAnswer(const std::string& url, const Request& request, const Answer& answer) const {
    m_trace.line(kTraceFlow, url + ": answered");
    if (answer.errorName == nullptr) {
        return 0;
    }
    m_trace.line(kTraceFailure,
                 url + ": " + excerpt(request, answer.errorName) + ": " + excerpt(request, answer.errorMessage));
    for (const ErrorStatus& error : kErrorStatuses) {
        if (std::strcmp(answer.errorName, error.name) == 0) {
            return explained(error.status, request, excerpt(request, answer.errorMessage));
        }
    }
    return explained(kStatusRequestRefused, request, excerpt(request, answer.errorMessage));
}

std::uint32_t Client::explained(std::uint32_t status, const Request& request, const std::string& words) const {
    if (status == kStatusRequestRefused && !words.empty()) {
        m_trace.line(kTraceAlways, "the server says: " + words);
    } else if (status == kStatusIdentityRefused || status == kStatusNotPermitted) {
        const char* user = request.security.user_name;
        m_trace.line(kTraceAlways, user == nullptr ? "the request was sent without a user name"
                                                   : "the request was sent as the user " + std::string(user));
    }
    return status;
}

std::string Client::excerpt(const Request& request, std::string_view text) {
    const std::string_view password = request.security.password == nullptr ? "" : request.security.password;
    std::string head(text.substr(0, kExcerptBytes + password.size()));
    if (!password.empty()) {
        replaceAll(head, password, "***");
    }
    head.resize(std::min(head.size(), kExcerptBytes));
    return head;
}

}  // namespace olmdsess
