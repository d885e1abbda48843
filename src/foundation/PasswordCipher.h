// The cipher of the two stored passwords: AES-256 over 16-byte blocks (ECB, zero padding), then
// base64. In memory and in replies the passwords are in clear.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/WString.h"

// Wide text -> ANSI -> EncryptText -> wide. Always 1.
int EncryptPassword(WString& out, WStringView in);
// Wide text -> DecryptText -> ANSI text cut at the first zero byte -> wide. Always 1.
int DecryptPassword(WString& out, WStringView in);

void EncryptText(const std::string& in, std::string& out);
void DecryptText(const std::string& in, std::string& out);

std::string& Base64Encode(std::string& out, const uint8_t* bytes, size_t length);
std::string& Base64Decode(std::string& out, const std::string& in);
