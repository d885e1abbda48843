#include "platform/BlockCipher.h"

#include <windows.h>
// bcrypt.h builds on the types that windows.h declares.
#include <bcrypt.h>

#include <climits>

namespace platform {

namespace {

bool RunEcb(bool encrypt, const uint8_t* key, const uint8_t* in, size_t length, uint8_t* out) {
  if (length % kAesBlockBytes != 0 || length > static_cast<size_t>(ULONG_MAX)) return false;
  if (length == 0) return true;
  BCRYPT_ALG_HANDLE alg = nullptr;
  if (!BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&alg, BCRYPT_AES_ALGORITHM, nullptr, 0))) return false;
  BCRYPT_KEY_HANDLE handle = nullptr;
  bool ok = BCRYPT_SUCCESS(BCryptSetProperty(alg, BCRYPT_CHAINING_MODE,
                                             reinterpret_cast<PUCHAR>(const_cast<wchar_t*>(BCRYPT_CHAIN_MODE_ECB)),
                                             sizeof(BCRYPT_CHAIN_MODE_ECB), 0)) &&
            BCRYPT_SUCCESS(BCryptGenerateSymmetricKey(alg, &handle, nullptr, 0, const_cast<PUCHAR>(key),
                                                      static_cast<ULONG>(kAes256KeyBytes), 0));
  if (ok) {
    // No padding flag: the blocks are whole already, and CNG must neither add nor strip a block.
    ULONG written = 0;
    const ULONG bytes = static_cast<ULONG>(length);
    NTSTATUS status =
        encrypt ? BCryptEncrypt(handle, const_cast<PUCHAR>(in), bytes, nullptr, nullptr, 0, out, bytes, &written, 0)
                : BCryptDecrypt(handle, const_cast<PUCHAR>(in), bytes, nullptr, nullptr, 0, out, bytes, &written, 0);
    ok = BCRYPT_SUCCESS(status) && written == bytes;
  }
  // Destroying the key object wipes the key schedule.
  if (handle) BCryptDestroyKey(handle);
  BCryptCloseAlgorithmProvider(alg, 0);
  return ok;
}

}  // namespace

bool Aes256EcbEncrypt(const uint8_t key[kAes256KeyBytes], const uint8_t* in, size_t length, uint8_t* out) {
  return RunEcb(true, key, in, length, out);
}

bool Aes256EcbDecrypt(const uint8_t key[kAes256KeyBytes], const uint8_t* in, size_t length, uint8_t* out) {
  return RunEcb(false, key, in, length, out);
}

}  // namespace platform
