// The AES-256 block cipher, from the operating system's cryptography: CNG on Windows, libcrypto on
// POSIX. Each 16-byte block is enciphered by itself with the same key (ECB), with no padding and no
// initialisation vector; what surrounds the blocks (filling, text forms) belongs to the caller.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

constexpr size_t kAesBlockBytes = 16;
constexpr size_t kAes256KeyBytes = 32;

// `length` must be a multiple of kAesBlockBytes; `in` and `out` hold `length` bytes each and may be
// the same buffer. The key schedule is set up for the call and wiped afterwards. False when the
// length is not whole blocks or the system refuses the cipher; `out` then holds nothing useful.
bool Aes256EcbEncrypt(const uint8_t key[kAes256KeyBytes], const uint8_t* in, size_t length, uint8_t* out);
bool Aes256EcbDecrypt(const uint8_t key[kAes256KeyBytes], const uint8_t* in, size_t length, uint8_t* out);

}  // namespace platform
