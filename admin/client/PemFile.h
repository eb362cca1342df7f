/// PEM (RFC 7468).
#pragma once

#include "admin/client/KeyFileContents.h"
#include "runtime/SecretBuffer.h"

namespace olmdsess {

/// Reads the whole of a file; a certificate's label is its common name. Between blocks there may be text, as openssl
/// writes it there. Everything else that is not understood is refused, with its line: other kinds of blocks, what is
/// damaged, and text that looks like the rest of a block. Throws TlsProblem with kStatusKeyFile, std::bad_alloc.
KeyFileContents readPem(const std::string& path, const SecretBuffer& bytes, SecretBuffer& password);

}  // namespace olmdsess
