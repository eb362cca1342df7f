/// PKCS#12 (RFC 7292).
#pragma once

#include "admin/client/KeyFileContents.h"
#include "runtime/SecretBuffer.h"

namespace olmdsess {

/// Reads the whole of a file; its labels are the friendly names. Whatever in it is not understood is refused, with the
/// number of the part or of the bag, counted from 1. Throws TlsProblem with kStatusKeyFile, std::bad_alloc.
KeyFileContents readPkcs12(const std::string& path, const SecretBuffer& bytes, const SecretBuffer& password);

}  // namespace olmdsess
