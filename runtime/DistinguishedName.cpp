#include "runtime/DistinguishedName.h"

#include <openssl/objects.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "runtime/openssl_ptr.h"

namespace {

constexpr bool kDotted = true;

std::string typeText(const ASN1_OBJECT* type, bool dotted) {
    const int nid = OBJ_obj2nid(type);
    const std::string_view name = nid == NID_undef ? "" : OBJ_nid2sn(nid);
    if (!dotted && !name.empty() && name.find_first_of("/=+,\\") == std::string_view::npos) {
        return std::string(name);
    }
    char text[128] = "";
    OBJ_obj2txt(text, sizeof text, type, 1);
    return text;
}

std::optional<std::string> valueText(const ASN1_STRING* value) {
    unsigned char* bytes = nullptr;
    const int length = ASN1_STRING_to_UTF8(&bytes, value);
    if (length < 0) {
        return std::nullopt;
    }
    const std::unique_ptr<unsigned char, OpensslDeleter<[](unsigned char* block) { OPENSSL_free(block); }>> owner(
        bytes);
    return std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
}

/// The values of a name, each with the number of its component. A value that is no text is empty.
template <class Take>
void eachEntry(const X509_NAME* name, Take take) {
    for (int index = 0; index < X509_NAME_entry_count(name); ++index) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, index);
        take(X509_NAME_ENTRY_get_object(entry), valueText(X509_NAME_ENTRY_get_data(entry)), X509_NAME_ENTRY_set(entry));
    }
}

std::string escaped(std::string_view value) {
    std::string text;
    for (std::size_t at = 0; at < value.size(); ++at) {
        const auto byte = static_cast<unsigned char>(value[at]);
        const bool isBlankAtEnd = byte == ' ' && (at == 0 || at + 1 == value.size());
        if (byte == ',' || byte < ' ' || byte == 0x7F || isBlankAtEnd) {
            char number[4];
            std::snprintf(number, sizeof number, "\\%02X", byte);
            text += number;
        } else {
            text += std::strchr("/\\+", byte) == nullptr ? "" : "\\";
            text += value[at];
        }
    }
    return text;
}

/// What is after a backslash: the number of a byte, or a character that stands for itself.
std::optional<char> takeEscaped(std::string_view& text) {
    unsigned number = 0;
    const std::string_view digits = text.substr(0, 2);
    if (digits.size() == 2 && std::from_chars(digits.begin(), digits.end(), number, 16).ptr == digits.end()) {
        text.remove_prefix(2);
        return static_cast<char>(number);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    const char character = text.front();
    text.remove_prefix(1);
    return character;
}

/// Takes "TYPE=VALUE" from the front of the text; it ends at the next slash or plus, or at the text's end.
std::optional<NameValue> takeValue(std::string_view& text) {
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
    while (!text.empty() && text.front() != '/' && text.front() != '+') {
        std::optional<char> character = text.front();
        text.remove_prefix(1);
        if (character == '\\') {
            character = takeEscaped(text);
        }
        if (!character) {
            return std::nullopt;
        }
        value.push_back(*character);
    }
    return value.empty() ? std::nullopt : std::optional(NameValue{typeText(type.get(), kDotted), value});
}

}  // namespace

std::optional<DistinguishedName> parseDistinguishedName(std::string_view text) {
    DistinguishedName name;
    while (!text.empty()) {
        const char start = text.front();
        text.remove_prefix(1);
        if (start == '/') {
            name.emplace_back();
        } else if (start != '+' || name.empty()) {
            return std::nullopt;
        }
        std::optional<NameValue> value = takeValue(text);
        if (!value) {
            return std::nullopt;
        }
        name.back().push_back(std::move(*value));
    }
    for (NameComponent& component : name) {
        std::sort(component.begin(), component.end());
    }
    return name.empty() ? std::nullopt : std::optional(name);
}

std::optional<DistinguishedName> subjectName(const X509* certificate) {
    DistinguishedName name;
    bool isText = true;
    int last = -1;
    eachEntry(X509_get_subject_name(certificate),
              [&](const ASN1_OBJECT* type, const std::optional<std::string>& value, int component) {
                  if (component != last) {
                      name.emplace_back();
                      last = component;
                  }
                  isText = isText && value;
                  name.back().push_back({typeText(type, kDotted), value.value_or("")});
              });
    for (NameComponent& component : name) {
        std::sort(component.begin(), component.end());
    }
    return isText && !name.empty() ? std::optional(name) : std::nullopt;
}

std::string nameText(const X509_NAME* name) {
    std::string text;
    int last = -1;
    eachEntry(name, [&](const ASN1_OBJECT* type, const std::optional<std::string>& value, int component) {
        text += (component == last ? "+" : "/") + typeText(type, !kDotted) + "=" +
                (value ? escaped(*value) : "(a value that is no text)");
        last = component;
    });
    return text.empty() ? "(no name)" : text;
}

std::string subjectText(const X509* certificate) {
    return nameText(X509_get_subject_name(certificate));
}

std::string commonName(const X509* certificate) {
    std::string found;
    eachEntry(X509_get_subject_name(certificate),
              [&](const ASN1_OBJECT* type, const std::optional<std::string>& value, int) {
                  if (OBJ_obj2nid(type) == NID_commonName) {
                      found = value.value_or("");
                  }
              });
    return found;
}
