#include "admin/client/request/RequestWriter.h"

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
    for (; *text != '\0'; ++text) {
        if (static_cast<unsigned char>(*text) < ' ') {
            append(request, *text < 16 ? "\\u000" : "\\u001");
            request.push_back("0123456789abcdef"[*text % 16]);
            continue;
        }
        if (*text == '"' || *text == '\\') {
            request.push_back('\\');
        }
        request.push_back(*text);
    }
    request.push_back('"');
}

void writeValue(SecretBuffer& request, std::int32_t number) {
    append(request, std::to_string(number));
}

/// An object begins.
void writeValue(SecretBuffer& request, char brace) {
    request.push_back(brace);
}

/// The next member of an object.
template <class Value>
void write(SecretBuffer& request, const char* name, Value value) {
    if (request.back() != '{') {
        request.push_back(',');
    }
    writeValue(request, name);
    request.push_back(':');
    writeValue(request, value);
}

}  // namespace

SecretBuffer writeRequest(std::int32_t id, const char* method, const olm_dsess_admin_sec_info_t& security,
                          std::span<const RequestParameter> parameters) {
    SecretBuffer request{'{'};
    write(request, field::kJsonRpc, field::kVersion);
    write(request, field::kId, id);
    write(request, field::kMethod, method);
    write(request, field::kParams, '{');
    write(request, field::kSecurity, '{');
    write(request, field::kUser, security.user_name);
    write(request, field::kPassword, security.password);
    write(request, field::kLoginId, security.login_id);
    request.push_back('}');
    for (const auto& [name, value] : parameters) {
        std::visit([&, parameter = name](auto itsValue) { write(request, parameter, itsValue); }, value);
    }
    append(request, "}}");
    return request;
}

}  // namespace olmdsess
