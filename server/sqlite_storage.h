// The storage in one SQLite file (WAL mode). One connection, one operation at a time: each is a
// handful of prepared statements, far shorter than a request's trip through the network.
#pragma once
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "storage.h"

struct sqlite3;
class Statement;

class SqliteStorage : public Storage {
public:
    // Opens or creates the database; throws std::runtime_error with a readable message on failure.
    explicit SqliteStorage(const std::string& path);
    ~SqliteStorage() override;
    SqliteStorage(const SqliteStorage&) = delete;
    SqliteStorage& operator=(const SqliteStorage&) = delete;

    bool add_account(const std::string& email, const std::string& password_hash) override;
    std::optional<Account> account_by_email(const std::string& email) override;
    std::optional<Account> account_by_token(const std::string& token_sha256, int64_t now, int64_t idle_limit) override;
    void add_token(int64_t account, const std::string& token_sha256, int64_t now) override;
    bool revoke_token(const std::string& token_sha256) override;
    LoginReservation reserve_login(const std::string& email, const std::string& address, int64_t now,
                                   const LoginLimits& limits) override;
    void login_succeeded(int64_t attempt, const std::string& email, const std::string& address, int64_t now) override;
    RegisterResult register_drive(const DriveRecord& drive) override;
    std::optional<DriveRecord> drive(const std::string& drive_id) override;
    PublishResult publish(const Upload& upload, const PublishedStats& stats, int64_t now,
                          int64_t forget_before) override;
    std::optional<std::pair<PublishedStats, int64_t>> published(const std::string& drive_id) override;

    // "ok" when SQLite's own consistency check finds nothing wrong, else its first complaint.
    std::string integrity_check();

private:
    void exec(const char* sql);
    void migrate();
    Statement& prepared(const char* sql);
    void forget_old_uploads(int64_t now, int64_t forget_before);
    std::pair<int64_t, int64_t> attempts_since(const char* sql, const std::string& key, const std::string* second,
                                               int64_t since);
    bool known_address(const std::string& email, const std::string& address, int64_t since);
    void checkpoint_in_background(const std::string& path);

    sqlite3* db_ = nullptr;
    std::mutex mutex_;
    struct Cache;
    Cache* cache_;
    int64_t last_upload_prune_ = 0, last_login_prune_ = 0, last_token_prune_ = 0;
    // Copies the write-ahead log back into the database on a connection of its own, so that no
    // request ever waits for that (or for its fsync) while holding the storage.
    std::thread checkpointer_;
    std::mutex checkpoint_mutex_;
    std::condition_variable checkpoint_wake_;
    bool closing_ = false;
};
