#include "admin/client/RequestWriter.h"

#include <rapidjson/writer.h>

#include <string_view>

#include "protocol/protocol.h"
#include "runtime/QelJsonAllocator.h"

namespace olmdsess {

namespace {

/// RapidJSON's output stream, over storage that is wiped.
struct SecretStream {
    using Ch = char;
    void Put(char byte) { bytes.push_back(byte); }
    void Flush() {}
    SecretBuffer bytes;
};

using Writer = rapidjson::Writer<SecretStream, rapidjson::UTF8<>, rapidjson::UTF8<>, QelJsonAllocator>;

void writeKey(Writer& writer, std::string_view name) {
    writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
}

void writeText(Writer& writer, const char* name, const char* value) {
    writeKey(writer, name);
    if (value == nullptr) {
        writer.Null();
    } else {
        writer.String(value);
    }
}

void writeSecurity(Writer& writer, const olm_dsess_admin_sec_info_t& security) {
    writeKey(writer, protocol::field::kSecurity);
    writer.StartObject();
    writeText(writer, protocol::field::kUser, security.user_name);
    writeText(writer, protocol::field::kPassword, security.password);
    writeText(writer, protocol::field::kLoginId, security.login_id);
    writer.EndObject();
}

}  // namespace

SecretBuffer writeRequest(std::int32_t id, const char* method, const olm_dsess_admin_sec_info_t& security,
                          std::span<const RequestParameter> parameters) {
    SecretStream stream;
    Writer writer(stream);
    writer.StartObject();
    writeText(writer, protocol::field::kJsonRpc, protocol::field::kVersion);
    writeKey(writer, protocol::field::kId);
    writer.Int(id);
    writeText(writer, protocol::field::kMethod, method);
    writeKey(writer, protocol::field::kParams);
    writer.StartObject();
    writeSecurity(writer, security);
    for (const RequestParameter& parameter : parameters) {
        if (const auto* number = std::get_if<std::int32_t>(&parameter.value)) {
            writeKey(writer, parameter.name);
            writer.Int(*number);
        } else {
            writeText(writer, parameter.name, std::get<const char*>(parameter.value));
        }
    }
    writer.EndObject();
    writer.EndObject();
    return std::move(stream.bytes);
}

}  // namespace olmdsess
