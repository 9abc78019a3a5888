// Argon2id password hashes (libsodium's crypto_pwhash_str encoding) and sign-in tokens.
#pragma once
#include <cstddef>
#include <string>

struct PasswordCost {
    unsigned long long ops;
    size_t mem;

    // libsodium's interactive limits: about a tenth of a second and 64 MiB per hash.
    static PasswordCost interactive();
    // The smallest cost libsodium allows; for tests only, where speed matters more than strength.
    static PasswordCost fastest();
};

// Throws std::runtime_error when the memory for the hash cannot be had.
std::string hash_password(const std::string& password, PasswordCost cost);
bool password_matches(const std::string& hash, const std::string& password);

// 32 random bytes as 64 lower-case hex digits.
std::string new_token();
// What is stored for a token: its SHA-256, 32 raw bytes.
std::string token_digest(const std::string& token);

std::string to_hex(const unsigned char* bytes, size_t n);
// Decodes exactly 2 * n hex digits (either case) into out; false on anything else.
bool from_hex(const std::string& hex, unsigned char* out, size_t n);
