#include "admin/client/RequestWriter.h"

#include <string>
#include <string_view>

#include "protocol/protocol.h"

namespace olmdsess {

namespace {

namespace field = protocol::field;

void append(SecretBuffer& request, std::string_view bytes) {
    request.insert(request.end(), bytes.begin(), bytes.end());
}

/// UTF-8 as a string of JSON (RFC 8259, section 7); null as null.
void writeValue(SecretBuffer& request, const char* text) {
    if (text == nullptr) {
        append(request, "null");
        return;
    }
    request.push_back('"');
    for (const char byte : std::string_view(text)) {
        if (byte >= '\0' && byte < ' ') {
            append(request, byte < 16 ? "\\u000" : "\\u001");
            request.push_back("0123456789abcdef"[byte % 16]);
            continue;
        }
        if (byte == '"' || byte == '\\') {
            request.push_back('\\');
        }
        request.push_back(byte);
    }
    request.push_back('"');
}

void writeValue(SecretBuffer& request, std::int32_t number) {
    append(request, std::to_string(number));
}

/// The name of an object's next member.
void writeName(SecretBuffer& request, const char* name) {
    if (request.back() != '{') {
        request.push_back(',');
    }
    writeValue(request, name);
    request.push_back(':');
}

template <class Value>
void write(SecretBuffer& request, const char* name, Value value) {
    writeName(request, name);
    writeValue(request, value);
}

}  // namespace

SecretBuffer writeRequest(std::int32_t id, const char* method, const olm_dsess_admin_sec_info_t& security,
                          std::span<const RequestParameter> parameters) {
    SecretBuffer request{'{'};
    write(request, field::kJsonRpc, field::kVersion);
    write(request, field::kId, id);
    write(request, field::kMethod, method);
    writeName(request, field::kParams);
    append(request, "{");
    writeName(request, field::kSecurity);
    append(request, "{");
    write(request, field::kUser, security.user_name);
    write(request, field::kPassword, security.password);
    write(request, field::kLoginId, security.login_id);
    append(request, "}");
    for (const auto& [name, value] : parameters) {
        std::visit([&, parameter = name](auto itsValue) { write(request, parameter, itsValue); }, value);
    }
    append(request, "}}");
    return request;
}

}  // namespace olmdsess
