#include "admin/client/Client.h"

#include <algorithm>
#include <cassert>
#include <new>
#include <optional>
#include <utility>

#include "admin/client/request/Interruption.h"
#include "catalogue/qel_messages.h"
#include "protocol/protocol.h"
#include "runtime/qel_utf8.h"
#include "runtime/qel_uuid.h"

namespace olmdsess {

namespace {

constexpr std::size_t kExcerptBytes = AnswerReader::kShownBytes;

// The most causes that are shown for one failed request.
constexpr std::size_t kShownCauses = 3;

// Pauses before locations are asked again. The first one takes at most kFirstPause, each later one at most twice as
// long as the one before it, and none longer than kLongestPause. When only one below kLeastPause fits into the time
// that is left, the request is given up.
constexpr std::chrono::milliseconds kFirstPause{50};
constexpr std::chrono::milliseconds kLongestPause{1000};
constexpr std::chrono::milliseconds kLeastPause{10};
// The least time for an attempt to find out about a change, unless less is left.
constexpr std::chrono::seconds kLeastShare{1};

// Asked to learn whether the server keeps records of changes. A refusal tells that, too.
constexpr Operation kQuestion{protocol::method::kTraceGet, AnswerShape::kLevel, false};

/// What an error in an answer means.
struct ErrorStatus {
    const char* name;
    std::uint32_t status;
    /// Whether a change that gets this answer gets it each time that it is sent: because a server keeps the answer
    /// under the change's identifier, or because it follows from what is sent.
    bool holds;
};

constexpr ErrorStatus kErrorStatuses[] = {
    {protocol::error::kIdentityRefused, kStatusIdentityRefused, false},
    {protocol::error::kNotPermitted, kStatusNotPermitted, false},
    {protocol::error::kUnknownRealm, kStatusUnknownRealm, true},
    {protocol::error::kUnknownReplicaSet, kStatusUnknownReplicaSet, false},
    {protocol::error::kNoMatchingSession, kStatusNoMatchingSession, true},
    {protocol::error::kInvalidValue, kStatusRequestRefused, true},
    {protocol::error::kInvalidRequest, kStatusRequestRefused, false},
    {protocol::error::kServerFailure, kStatusServerFailed, false},
};

/// A name that this client does not know is a refusal.
ErrorStatus meaningOf(std::string_view errorName) {
    const auto* found = std::find_if(std::begin(kErrorStatuses), std::end(kErrorStatuses),
                                     [errorName](const ErrorStatus& error) { return error.name == errorName; });
    return found == std::end(kErrorStatuses) ? ErrorStatus{"", kStatusRequestRefused, false} : *found;
}

/// Whether an answer tells what became of a change that may have been carried out before.
bool isFinal(const Answer& answer) {
    return answer.errorName == nullptr || meaningOf(answer.errorName).holds;
}

/// The cause of failure that all locations had in common, if there was one.
std::uint32_t commonStatus(std::span<const Attempt> failures) {
    const auto isAnother = [&](const Attempt& attempt) { return attempt.status != failures.front().status; };
    return failures.empty() || std::any_of(failures.begin(), failures.end(), isAnother) ? kStatusNoLocation
                                                                                        : failures.front().status;
}

void replaceAll(std::string& text, std::string_view what, std::string_view with) {
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
        text.replace(at, what.size(), with);
    }
}

bool isTextOrNull(const char* text) {
    return text == nullptr || qel_utf8_is_text(text);
}

/// Whether all texts are UTF-8, which JSON consists of. Others would not reach the server as they were meant.
bool canBeSent(const olm_dsess_admin_sec_info_t& security, std::span<const RequestParameter> parameters) {
    return isTextOrNull(security.user_name) && isTextOrNull(security.password) && isTextOrNull(security.login_id) &&
           std::all_of(parameters.begin(), parameters.end(), [](const RequestParameter& parameter) {
               const auto* text = std::get_if<const char*>(&parameter.value);
               return text == nullptr || isTextOrNull(*text);
           });
}

}  // namespace

Client::Client(std::int32_t timeoutSeconds, std::vector<std::string> urls,
               const olm_dsess_admin_ssl_info_t& tlsSettings, Trace trace)
    : m_timeout(std::chrono::seconds(timeoutSeconds == 0 ? kDefaultTimeoutSeconds : timeoutSeconds)),
      m_urls(std::move(urls)),
      m_trace(trace),
      m_tlsPolicy(tlsSettings, trace),
      m_transport(m_tlsPolicy) {}

std::uint32_t Client::carryOut(const Operation& operation, const olm_dsess_admin_sec_info_t& security,
                               std::span<const RequestParameter> parameters, Answer& answer) {
    if (!canBeSent(security, parameters)) {
        m_trace.line(kTraceAlways, "the request is not valid UTF-8 and was not sent");
        return kStatusInvalidArgument;
    }
    std::vector<RequestParameter> all(parameters.begin(), parameters.end());
    std::optional<QelUuidText> changeId;
    if (operation.changes) {
        changeId = qel_make_uuid();
        if (!changeId) {
            return kStatusNoChangeId;
        }
        all.push_back({protocol::field::kChangeId, changeId->data()});
        if (m_clusterId && !m_clusterId->empty()) {
            all.push_back({protocol::field::kClusterId, m_clusterId->c_str()});
        }
    }
    const std::int32_t id = m_lastId = m_lastId % 1'000'000'000 + 1;
    Request request{operation, security, id, writeRequest(id, operation.method, security, all),
                    std::vector<Attempt>(m_urls.size())};
    if (request.body.size() > protocol::kMaxRequestBytes) {
        m_trace.line(kTraceAlways, "the request is too long and was not sent");
        return kStatusInvalidArgument;
    }
    olm_dsess_admin_sec_info_t shown = security;
    shown.password = security.password == nullptr ? nullptr : "***";
    const SecretBuffer shownText = writeRequest(id, operation.method, shown, all);
    m_trace.line(kTraceMessage, "request: " + std::string(shownText.begin(), shownText.end()));
    try {
        return tryLocations(request, answer);
    } catch (const std::bad_alloc&) {
        return request.isOpen ? kStatusOutcomeUnknown : kStatusNoMemory;
    }
}

std::uint32_t Client::tryLocations(Request& request, Answer& answer) {
    auto end = Clock::now() + m_timeout;
    Clock::duration longest = kFirstPause;
    do {
        for (std::size_t index = 0; index < m_urls.size() && !interruption::isOn(); ++index) {
            const auto now = Clock::now();
            const auto share = (end - now) / static_cast<int>(m_urls.size() - index);
            const Attempt attempt = tryLocation(index, request, now + share, request.operation.changes, answer);
            if (attempt.status == 0) {
                return finish(index, request, answer);
            }
            end += attempt.flowed;
            if (request.isOpen) {
                return settle(index, end, request, answer);
            }
            if (attempt.status == kStatusInterrupted) {
                return kStatusInterrupted;
            }
            if (attempt.status == kStatusListingTooLong) {  // it is as long elsewhere
                showCauses(request);
                return kStatusListingTooLong;
            }
        }
    } while (request.wasBusy && pause(end, longest));
    if (interruption::isOn()) {
        return kStatusInterrupted;
    }
    showCauses(request);
    return commonStatus(request.failures);
}

std::uint32_t Client::settle(std::size_t index, Clock::time_point end, Request& request, Answer& answer) {
    const olm_dsess_admin_sec_info_t& security = request.security;
    Request question{kQuestion, security, request.id, writeRequest(request.id, kQuestion.method, security, {}),
                     std::vector<Attempt>(m_urls.size())};
    const bool demandsCluster = m_clusterId && !m_clusterId->empty();
    Clock::duration longest = kFirstPause;
    for (bool isTime = Clock::now() < end && !interruption::isOn(); isTime && m_clusterId != "";
         isTime = pause(end, longest)) {
        const auto now = Clock::now();
        const auto share = std::min(end - now, std::max<Clock::duration>((end - now) / 2, kLeastShare));
        if (!m_clusterId) {
            const Attempt attempt = tryLocation(index, question, now + share, false, answer);
            if (attempt.status == 0) {
                learnCluster(answer);
            }
            continue;
        }
        m_trace.line(kTraceFailure, m_urls[index] + ": asked again what became of the change");
        const Attempt attempt = tryLocation(index, request, now + share, false, answer);
        if (attempt.status == 0 && isFinal(answer)) {
            return finish(index, request, answer);
        }
        end += attempt.flowed;
        if (demandsCluster) {
            index = (index + 1) % m_urls.size();
        }
    }
    showCauses(request);
    return kStatusOutcomeUnknown;
}

bool Client::pause(Clock::time_point end, Clock::duration& longest) const {
    const auto now = Clock::now();
    // The clock's low digits serve as a random number: clients that failed together do not come back together.
    const auto length = std::chrono::floor<std::chrono::milliseconds>(
        std::min(longest - now.time_since_epoch() % (longest / 2), (end - now) / 2));
    if (length < kLeastPause) {
        return false;
    }
    longest = std::min<Clock::duration>(2 * longest, kLongestPause);
    m_trace.line(kTraceFailure,
                 "a pause of " + std::to_string(length.count()) + " ms before locations are asked again");
    return !interruption::wait(length);
}

Attempt Client::tryLocation(std::size_t index, Request& request, Clock::time_point end, bool leavesTime,
                            Answer& answer) {
    const std::string& url = m_urls[index];
    const auto now = Clock::now();
    AnswerReader reader(request.operation.shape, request.id);
    // Only the answer to a listing may be long. Any other one must be whole by the end.
    const AttemptLimits limits{end, leavesTime, request.operation.shape == AnswerShape::kSessions, end - now};
    Attempt attempt = m_transport.post(url, request.body, limits, reader);
    const bool wasOpen = request.isOpen;
    request.isOpen = request.operation.changes && (wasOpen || attempt.mayHaveActed);
    if (attempt.status == kStatusNoMemory) {
        throw std::bad_alloc();
    }
    if (!reader.head().empty()) {
        m_trace.line(kTraceMessage, "answer: " + excerpt(request, reader.head()));
    }
    if (attempt.status == 0) {
        answer = std::move(reader.answer());
        if (answer.errorName != nullptr && std::string_view(answer.errorName) == protocol::error::kOtherCluster) {
            request.isOpen = wasOpen;
            attempt.status = kStatusRequestRefused;
            attempt.cause = excerpt(request, answer.errorMessage);
        }
    }
    if (attempt.status != 0) {
        m_trace.line(kTraceFailure, url + ": " + attempt.cause);
        // What the location said at an earlier attempt tells more than that this one ran out of time.
        const bool saysLess = attempt.status == kStatusTimedOut && request.failures[index].isBusy;
        if (attempt.status != kStatusInterrupted && !saysLess) {
            request.failures[index] = attempt;
        }
        request.wasBusy = request.wasBusy || attempt.isBusy;
    } else if (answer.errorName != nullptr) {
        m_trace.line(kTraceFailure,
                     url + ": " + excerpt(request, answer.errorName) + ": " + excerpt(request, answer.errorMessage));
    } else {
        m_trace.line(kTraceFlow, url + ": answered");
    }
    return attempt;
}

std::uint32_t Client::finish(std::size_t index, const Request& request, const Answer& answer) {
    learnCluster(answer);
    assert(index < m_urls.size());
    const auto first = m_urls.begin();
    const auto answered = first + static_cast<std::ptrdiff_t>(index);
    std::rotate(first, answered, answered + 1);
    if (answer.errorName == nullptr) {
        return 0;
    }
    const std::uint32_t status = meaningOf(answer.errorName).status;
    const std::string words = excerpt(request, answer.errorMessage);
    if (status == kStatusRequestRefused && !words.empty()) {
        m_trace.line(kTraceAlways, "the server says: " + words);
    } else if (status == kStatusIdentityRefused || status == kStatusNotPermitted) {
        const char* user = request.security.user_name;
        m_trace.line(kTraceAlways, user == nullptr ? "the request was sent without a user name"
                                                   : "the request was sent as the user " + std::string(user));
    }
    return status;
}

// Locations that failed of the same share a line. Further lines would tell little more.
void Client::showCauses(const Request& request) const {
    std::vector<std::pair<std::string, std::string>> groups;  // the locations, and what they failed of
    for (std::size_t index = 0; index < m_urls.size(); ++index) {
        const std::string& cause = request.failures[index].cause;
        if (cause.empty()) {
            continue;  // it was not asked
        }
        const std::string location = m_urls[index].substr(0, m_urls[index].find(protocol::kServicePath));
        const auto group = std::find_if(groups.begin(), groups.end(),
                                        [&](const auto& candidate) { return candidate.second == cause; });
        if (group == groups.end()) {
            groups.emplace_back(location, cause);
        } else {
            group->first += ", " + location;
        }
    }
    for (std::size_t index = 0; index < groups.size() && index < kShownCauses; ++index) {
        m_trace.line(kTraceAlways, groups[index].first + ": " + groups[index].second);
    }
    if (groups.size() > kShownCauses) {
        m_trace.line(kTraceAlways, "other locations: other causes");
    }
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
