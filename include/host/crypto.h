// Enciphered secrets of the host (directory password).
//
// The stored form is "kx1:" + base64(nonce(12) | ciphertext | tag(16)),
// AES-256-GCM under the host key file (32 random bytes, mode 0600; see
// docs/host.md). decrypt_password returns the plain text; a stored text
// without the "kx1:" prefix is returned unchanged (a password stored in
// clear by an older set-up). A text with the prefix that cannot be
// deciphered (wrong key, damaged) raises std::runtime_error.
// encrypt_password is the inverse, used by `kxhost store-password`; it raises
// std::runtime_error when the key cannot be read or created.
#pragma once

#include <string>

#include "host/host_api.h"

KX_HOST_API std::string decrypt_password(const std::string& stored);
KX_HOST_API std::string encrypt_password(const std::string& plain);
