// Everything the service keeps, behind one interface so that SQLite or PostgreSQL serve the same
// handlers. Every operation is atomic and safe to call from several threads at once, and from
// several processes sharing one database: nothing that decides a request is kept in memory.
#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include "published_stats.h"

struct Account {
    int64_t id = 0;
    std::string email;
    std::string password_hash;  // Argon2id, in crypto_pwhash_str's encoding
};

struct DriveRecord {
    std::string drive_id;  // 32 lower-case hex digits
    int64_t owner = 0;
    std::string upload_key;  // 32 bytes
    std::string label;
};

struct Upload {
    std::string drive_id;
    int64_t timestamp = 0;  // as sent, in Unix seconds
    std::string signature;  // 64 lower-case hex digits
};

struct LoginLimits {
    int per_source = 10;    // failures of one e-mail from one address
    int per_address = 30;   // failures from one address, whatever the e-mail
    int per_account = 50;   // failures of one e-mail from addresses it never signed in from
    int64_t window = 15 * 60;        // seconds a failure counts
    int64_t known_for = 90 * 86400;  // seconds an address stays known after a sign-in from it
};

struct LoginReservation {
    enum Refusal { None, Source, Address, Account };
    Refusal refused = None;
    int64_t attempt = 0;      // when not refused: the attempt to hand to login_succeeded
    int64_t retry_after = 0;  // when refused: seconds until the oldest counted failure ends
};

enum class RegisterResult { Created, Updated, OwnedByAnother, KeyDiffers };
enum class PublishResult { Accepted, Replayed, OlderSeq };

class Storage {
public:
    virtual ~Storage() = default;

    // false when an account with that e-mail exists already.
    virtual bool add_account(const std::string& email, const std::string& password_hash) = 0;
    virtual std::optional<Account> account_by_email(const std::string& email) = 0;
    // The token's account, unless the token was revoked or went unused for idle_limit seconds;
    // a token found counts as used now.
    virtual std::optional<Account> account_by_token(const std::string& token_sha256, int64_t now,
                                                    int64_t idle_limit) = 0;
    virtual void add_token(int64_t account, const std::string& token_sha256, int64_t now) = 0;
    // false when there was no such token.
    virtual bool revoke_token(const std::string& token_sha256) = 0;

    // Sign-in attempts. Each is counted before its password is checked, so parallel guesses
    // cannot slip past a limit between the check and the count; a right password then takes its
    // attempt back. Limits fall on the source first: a burst against one e-mail locks out the
    // address it comes from, and the e-mail only for addresses that never signed in to it.
    virtual LoginReservation reserve_login(const std::string& email, const std::string& address, int64_t now,
                                           const LoginLimits& limits) = 0;
    // The attempt's password was right: it no longer counts, the failures of this e-mail from this
    // address are forgotten, and the address becomes one the account is known to sign in from.
    virtual void login_succeeded(int64_t attempt, const std::string& email, const std::string& address,
                                 int64_t now) = 0;

    // The first account to register a drive owns it; its key never changes afterwards.
    virtual RegisterResult register_drive(const DriveRecord& drive) = 0;
    virtual std::optional<DriveRecord> drive(const std::string& drive_id) = 0;

    // Records the upload and stores the statistics in one step, unless this exact upload was
    // accepted before or the statistics are older than the stored ones. Uploads older than
    // forget_before are dropped from the replay set: their time stamps are refused anyway.
    virtual PublishResult publish(const Upload& upload, const PublishedStats& stats, int64_t now,
                                  int64_t forget_before) = 0;
    // The statistics last published for a drive, and when.
    virtual std::optional<std::pair<PublishedStats, int64_t>> published(const std::string& drive_id) = 0;
};
