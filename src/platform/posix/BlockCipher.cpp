#include "platform/BlockCipher.h"

#include <openssl/evp.h>

#include <climits>

namespace platform {

namespace {

bool RunEcb(bool encrypt, const uint8_t* key, const uint8_t* in, size_t length, uint8_t* out) {
  if (length % kAesBlockBytes != 0 || length > static_cast<size_t>(INT_MAX)) return false;
  if (length == 0) return true;
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  if (!ctx) return false;
  // The blocks are whole already: libcrypto must neither add nor strip a padding block.
  bool ok = EVP_CipherInit_ex(ctx, EVP_aes_256_ecb(), nullptr, key, nullptr, encrypt ? 1 : 0) == 1 &&
            EVP_CIPHER_CTX_set_padding(ctx, 0) == 1;
  int written = 0;
  int tail = 0;
  ok = ok && EVP_CipherUpdate(ctx, out, &written, in, static_cast<int>(length)) == 1 &&
       EVP_CipherFinal_ex(ctx, out + written, &tail) == 1 && static_cast<size_t>(written + tail) == length;
  // Freeing the context wipes the key schedule.
  EVP_CIPHER_CTX_free(ctx);
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
