#include "server/service/Request.h"

#include <openssl/evp.h>

#include <array>
#include <boost/json/serialize.hpp>
#include <cassert>
#include <new>
#include <span>

#include "protocol/protocol.h"
#include "runtime/qel_base64.h"
#include "server/log/Failure.h"
#include "server/log/Text.h"
#include "server/service/Methods.h"

namespace dsessd {

namespace {

namespace json = boost::json;
namespace field = protocol::field;
using Kind = FieldRule::Kind;

constexpr std::size_t kMaxChangeIdBytes = 64;

// The fields of the security, and those that the params of every change may have.
constexpr FieldRule kSecurity[] = {{field::kUser, Kind::kOptionalText, &Parameters::user},
                                   {field::kPassword, Kind::kOptionalText, &Parameters::password},
                                   {field::kLoginId, Kind::kOptionalText, &Parameters::loginId}};
constexpr FieldRule kChange[] = {{field::kChangeId, Kind::kOptionalText, &Parameters::changeId, kMaxChangeIdBytes},
                                 {field::kClusterId, Kind::kOptionalText, &Parameters::clusterId}};

std::string_view takeText(const FieldRule& rule, const json::value* value) {
    const json::string* text = value == nullptr ? nullptr : value->if_string();
    if (text == nullptr) {
        if (rule.kind == Kind::kOptionalText && (value == nullptr || value->is_null())) {
            return {};
        }
        throw Failure(Reason::kInvalidParams, "A parameter is missing or is not text.");
    }
    return *text;
}

std::int32_t takeInteger(const json::value* value) {
    const std::int64_t* number = value == nullptr ? nullptr : value->if_int64();
    if (number == nullptr || *number != static_cast<std::int32_t>(*number)) {
        throw Failure(Reason::kInvalidParams, "A parameter is missing or is not an integer of 32 bits.");
    }
    return static_cast<std::int32_t>(*number);
}

void takeFields(const json::object& object, std::span<const FieldRule> rules, Parameters& parameters) {
    for (const FieldRule& rule : rules) {
        const json::value* value = object.if_contains(rule.name);
        if (rule.kind == Kind::kInteger) {
            parameters.*rule.number = takeInteger(value);
        } else {
            parameters.*rule.text = takeText(rule, value);
        }
    }
}

bool isInRange(const FieldRule& rule, const Parameters& parameters) {
    if (rule.kind == Kind::kInteger) {
        return parameters.*rule.number >= rule.least && parameters.*rule.number <= rule.most;
    }
    const std::string_view text = parameters.*rule.text;
    return text.size() <= rule.longest &&
           (rule.kind != Kind::kSelector || text == protocol::selector::kUser || text == protocol::selector::kSession);
}

/// Says in a sentence which values a field may have.
std::string rangeText(const FieldRule& rule) {
    const std::string name = std::string("The ") + rule.name;
    switch (rule.kind) {
        case Kind::kInteger:
            return name + " is a number from " + std::to_string(rule.least) + " to " + std::to_string(rule.most) + ".";
        case Kind::kSelector:
            return name + " is " + protocol::selector::kUser + " or " + protocol::selector::kSession + ".";
        case Kind::kText:
        case Kind::kOptionalText:
            break;
    }
    return name + " has at most " + std::to_string(rule.longest) + " bytes.";
}

void checkRanges(std::span<const FieldRule> rules, const Parameters& parameters) {
    for (const FieldRule& rule : rules) {
        if (!isInRange(rule, parameters)) {
            throw Failure(Reason::kInvalidValue, rangeText(rule));
        }
    }
}

const json::object& objectIn(const json::object& object, const char* name) {
    const json::value* value = object.if_contains(name);
    const json::object* found = value == nullptr ? nullptr : value->if_object();
    if (found == nullptr) {
        throw Failure(Reason::kInvalidParams, "The params or their security are missing or are not an object.");
    }
    return *found;
}

}  // namespace

void Request::read() {
    assert(!m_document);
    m_document = parseStrictly({m_text.data(), m_text.size()}, m_memory);
    m_text = {};
    if (!m_document) {
        throw Failure(Reason::kNoJson, "The request is not acceptable JSON.");
    }
    const json::object* whole = m_document->if_object();
    const json::value nothing;
    const auto find = [&](const char* name) -> const json::value& {
        const json::value* value = whole == nullptr ? nullptr : whole->if_contains(name);
        return value == nullptr ? nothing : *value;
    };
    const json::string* version = find(field::kJsonRpc).if_string();
    const json::value& id = find(field::kId);
    const json::string* name = find(field::kMethod).if_string();
    if (version == nullptr || *version != field::kVersion || !(id.is_int64() || id.is_uint64()) || name == nullptr) {
        throw Failure(Reason::kNoRequest, "This is not one JSON-RPC 2.0 request with an integer as its id.");
    }
    m_id = json::serialize(id);
    m_method = findMethod(*name);
    if (m_method == nullptr) {
        throw Failure(Reason::kNoMethod, "There is no such method.");
    }
    const json::object& params = objectIn(*whole, field::kParams);
    takeFields(objectIn(params, field::kSecurity), kSecurity, m_parameters);
    takeFields(params, m_method->takes, m_parameters);
    if (m_method->changes()) {
        takeFields(params, kChange, m_parameters);
    }
}

void Request::checkValues() const {
    assert(isRead());
    checkRanges(m_method->takes, m_parameters);
    checkRanges(kChange, m_parameters);
}

Credentials Request::credentials() const {
    return {m_parameters.user, m_parameters.password.data(), m_parameters.loginId};
}

std::string Request::digest() const {
    assert(isRead());
    const Parameters& given = m_parameters;
    const std::string level = std::to_string(given.level);
    std::string content;
    for (const std::string_view part :
         std::initializer_list<std::string_view>{m_method->name, given.realm, given.selector, given.value, level}) {
        content.append(std::to_string(part.size())).append(" ").append(part);
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    unsigned length = 0;
    std::array<char, std::size_t{2} * EVP_MAX_MD_SIZE> text;
    if (EVP_Digest(content.data(), content.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1 ||
        qel_base64_std_encode(digest.data(), length, text.data(), text.size()) < 0) {
        throw std::bad_alloc();
    }
    return text.data();
}

std::string Request::description() const {
    assert(isRead());
    std::string text = m_method->name;
    for (const FieldRule& rule : m_method->takes) {
        text.append(&rule == m_method->takes.data() ? " with " : ", ").append(rule.name).append(" ");
        text +=
            rule.kind == Kind::kInteger ? std::to_string(m_parameters.*rule.number) : harmless(m_parameters.*rule.text);
    }
    return text;
}

}  // namespace dsessd
