// Everything the service keeps, behind one interface so that another database can take
// SQLite's place without touching the handlers. Every operation is atomic and safe to call from
// several threads at once.
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

enum class RegisterResult { Created, Updated, OwnedByAnother, KeyDiffers };
enum class PublishResult { Accepted, Replayed, OlderSeq };

class Storage {
public:
    virtual ~Storage() = default;

    // false when an account with that e-mail exists already.
    virtual bool add_account(const std::string& email, const std::string& password_hash) = 0;
    virtual std::optional<Account> account_by_email(const std::string& email) = 0;
    virtual std::optional<Account> account_by_token(const std::string& token_sha256) = 0;
    virtual void add_token(int64_t account, const std::string& token_sha256, int64_t now) = 0;

    // Failed sign-ins for one e-mail: recorded, counted since a moment, and forgotten on success.
    virtual void note_login_failure(const std::string& email, int64_t now) = 0;
    // The number of failures after since, and the time of the oldest of them.
    virtual std::pair<int, int64_t> login_failures_since(const std::string& email, int64_t since) = 0;
    virtual void clear_login_failures(const std::string& email) = 0;

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
