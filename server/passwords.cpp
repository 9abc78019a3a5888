#include "passwords.h"

#include <sodium.h>

#include <stdexcept>

PasswordCost PasswordCost::interactive() {
    return {crypto_pwhash_OPSLIMIT_INTERACTIVE, crypto_pwhash_MEMLIMIT_INTERACTIVE};
}

PasswordCost PasswordCost::fastest() { return {crypto_pwhash_OPSLIMIT_MIN, crypto_pwhash_MEMLIMIT_MIN}; }

std::string hash_password(const std::string& password, PasswordCost cost) {
    char out[crypto_pwhash_STRBYTES];
    // crypto_pwhash_str picks Argon2id in every libsodium from 1.0.15 on.
    if (crypto_pwhash_str_alg(out, password.data(), password.size(), cost.ops, cost.mem,
                              crypto_pwhash_ALG_ARGON2ID13) != 0)
        throw std::runtime_error("not enough memory to hash a password");
    return out;
}

bool password_matches(const std::string& hash, const std::string& password) {
    return crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
}

std::string new_token() {
    unsigned char bytes[32];
    randombytes_buf(bytes, sizeof bytes);
    return to_hex(bytes, sizeof bytes);
}

std::string token_digest(const std::string& token) {
    unsigned char digest[crypto_hash_sha256_BYTES];
    crypto_hash_sha256(digest, reinterpret_cast<const unsigned char*>(token.data()), token.size());
    return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

std::string to_hex(const unsigned char* bytes, size_t n) {
    std::string hex(n * 2 + 1, '\0');
    sodium_bin2hex(hex.data(), hex.size(), bytes, n);
    hex.pop_back();
    return hex;
}

bool from_hex(const std::string& hex, unsigned char* out, size_t n) {
    if (hex.size() != n * 2) return false;
    size_t written = 0;
    const char* end = nullptr;
    return sodium_hex2bin(out, n, hex.data(), hex.size(), nullptr, &written, &end) == 0 && written == n &&
           end == hex.data() + hex.size();
}
