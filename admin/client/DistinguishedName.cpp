#include "admin/client/DistinguishedName.h"

#include <openssl/objects.h>

#include "admin/client/openssl_ptr.h"

namespace {

constexpr bool kDotted = true;

std::string typeText(const ASN1_OBJECT* type, bool dotted) {
    const int nid = OBJ_obj2nid(type);
    if (!dotted && nid != NID_undef) {
        return OBJ_nid2sn(nid);
    }
    char text[128] = "";
    OBJ_obj2txt(text, sizeof text, type, 1);
    return text;
}

std::string valueText(const ASN1_STRING* value) {
    unsigned char* bytes = nullptr;
    const int length = ASN1_STRING_to_UTF8(&bytes, value);
    if (length < 0) {
        return {};
    }
    const std::unique_ptr<unsigned char, OpensslDeleter<[](unsigned char* block) { OPENSSL_free(block); }>> owner(
        bytes);
    return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length)};
}

/// The entries of a certificate's subject, each with the number of its set: equal for the values of one component.
template <class Take>
void eachEntry(const X509* certificate, Take take) {
    const X509_NAME* name = X509_get_subject_name(certificate);
    for (int index = 0; index < X509_NAME_entry_count(name); ++index) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, index);
        take(X509_NAME_ENTRY_get_object(entry), valueText(X509_NAME_ENTRY_get_data(entry)), X509_NAME_ENTRY_set(entry));
    }
}

/// Takes one component from the front of the text, whose slash is gone; it ends at the next slash or at the text's end.
std::optional<NameComponent> takeComponent(std::string_view& text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) {
        return std::nullopt;
    }
    const ObjectPtr type(OBJ_txt2obj(std::string(text.substr(0, equals)).c_str(), 0));
    if (type == nullptr) {
        return std::nullopt;
    }
    text.remove_prefix(equals + 1);
    std::string value;
    while (!text.empty() && text.front() != '/') {
        if (text.front() == '\\') {
            text.remove_prefix(1);
            if (text.empty()) {
                return std::nullopt;
            }
        }
        value.push_back(text.front());
        text.remove_prefix(1);
    }
    if (value.empty()) {
        return std::nullopt;
    }
    return NameComponent{typeText(type.get(), kDotted), value};
}

}  // namespace

std::optional<DistinguishedName> parseDistinguishedName(std::string_view text) {
    DistinguishedName name;
    while (!text.empty()) {
        if (text.front() != '/') {
            return std::nullopt;
        }
        text.remove_prefix(1);
        const std::optional<NameComponent> component = takeComponent(text);
        if (!component) {
            return std::nullopt;
        }
        name.push_back(*component);
    }
    return name.empty() ? std::nullopt : std::optional(name);
}

std::optional<DistinguishedName> subjectName(const X509* certificate) {
    DistinguishedName name;
    bool sayable = true;
    eachEntry(certificate, [&](const ASN1_OBJECT* type, const std::string& value, int set) {
        sayable = sayable && set == static_cast<int>(name.size());
        name.push_back({typeText(type, kDotted), value});
    });
    return sayable ? std::optional(name) : std::nullopt;
}

std::string subjectText(const X509* certificate) {
    std::string text;
    eachEntry(certificate, [&](const ASN1_OBJECT* type, const std::string& value, int) {
        text += "/" + typeText(type, !kDotted) + "=";
        for (const char byte : value) {
            text += byte == '/' || byte == '\\' ? std::string{'\\', byte} : std::string{byte};
        }
    });
    return text.empty() ? "(no subject)" : text;
}

std::string commonName(const X509* certificate) {
    std::string found;
    eachEntry(certificate, [&](const ASN1_OBJECT* type, const std::string& value, int) {
        if (OBJ_obj2nid(type) == NID_commonName) {
            found = value;
        }
    });
    return found;
}
