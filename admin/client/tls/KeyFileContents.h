/// What a key file holds, before it is known what belongs together.
#pragma once

#include <string>
#include <vector>

#include "runtime/SecretBuffer.h"
#include "runtime/SecretFile.h"
#include "runtime/openssl_ptr.h"

namespace olmdsess {

/// The certificates and keys of a file, in its order, each with its label.
struct KeyFileContents {
    template <class Owner>
    struct Labelled {
        Owner object;
        std::string label;
    };

    std::vector<Labelled<CertificatePtr>> certificates;  ///< an export may hold the same one twice
    std::vector<Labelled<PrivateKeyPtr>> keys;
    bool hasPlainKey = false;  ///< a private key in it is not encrypted
    bool isSealed = false;     ///< a change is noticed, unless who made it knows the password
};

/// Reads the whole of a PKCS#12 or PEM file, and refuses what it does not understand with the line of PEM or the number
/// of the PKCS#12 bag, counted from 1. Throws UnusableFile, std::bad_alloc.
KeyFileContents readKeyFileContents(const SecretBuffer& bytes, SecretBuffer& password);

}  // namespace olmdsess
