/// Names of certificates' subjects, and their text form in the configuration: "/C=DE/O=Example/CN=node1".
#pragma once

#include <openssl/x509.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct NameComponent {
    std::string type;   ///< its object identifier in dotted form, so that "CN" and "commonName" are the same
    std::string value;  ///< UTF-8
    bool operator==(const NameComponent&) const = default;
};

using DistinguishedName = std::vector<NameComponent>;

/// Reads the text form. Each component begins with a slash; a backslash takes the character after it for itself. Empty
/// when the text is malformed or a type is unknown. Throws std::bad_alloc.
std::optional<DistinguishedName> parseDistinguishedName(std::string_view text);

/// A certificate's subject; empty when the text form cannot say it (a component of several values). Throws
/// std::bad_alloc.
std::optional<DistinguishedName> subjectName(const X509* certificate);

/// The text form of a certificate's subject, for people. Throws std::bad_alloc.
std::string subjectText(const X509* certificate);

/// The subject's common name, empty when there is none. Throws std::bad_alloc.
std::string commonName(const X509* certificate);
