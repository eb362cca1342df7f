/// Names of certificates' subjects, and their text form in the configuration: "/C=DE/O=Example/CN=node1".
///
/// A component may have several values: "/O=Example+CN=node1". In a value a backslash takes the character after it for
/// itself, and with two hexadecimal digits it is the byte of that number: "\2C" is a comma, which separates entries of
/// the configuration.
#pragma once

#include <openssl/x509.h>

#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

struct NameValue {
    std::string type;   ///< its object identifier in dotted form, so that "CN" and "commonName" are the same
    std::string value;  ///< UTF-8
    bool operator==(const NameValue&) const = default;
    bool operator<(const NameValue& other) const { return std::tie(type, value) < std::tie(other.type, other.value); }
};

using NameComponent = std::vector<NameValue>;  ///< sorted: the values of one component have no order
using DistinguishedName = std::vector<NameComponent>;

/// Reads the text form. Empty when the text is malformed or a type is unknown. Throws std::bad_alloc.
std::optional<DistinguishedName> parseDistinguishedName(std::string_view text);

/// A certificate's subject; empty when it has none, or when a value of it is no text. Throws std::bad_alloc.
std::optional<DistinguishedName> subjectName(const X509* certificate);

/// The text form of a name; that of a certificate's subject is what parseDistinguishedName takes for that
/// subject. In printable characters. Throws std::bad_alloc.
std::string nameText(const X509_NAME* name);
std::string subjectText(const X509* certificate);

/// The subject's common name, empty when there is none. Throws std::bad_alloc.
std::string commonName(const X509* certificate);
