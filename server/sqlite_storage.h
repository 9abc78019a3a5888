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
    std::optional<Account> account_by_token(const std::string& token_sha256) override;
    void add_token(int64_t account, const std::string& token_sha256, int64_t now) override;
    void note_login_failure(const std::string& email, int64_t now) override;
    std::pair<int, int64_t> login_failures_since(const std::string& email, int64_t since) override;
    void clear_login_failures(const std::string& email) override;
    RegisterResult register_drive(const DriveRecord& drive) override;
    std::optional<DriveRecord> drive(const std::string& drive_id) override;
    PublishResult publish(const Upload& upload, const PublishedStats& stats, int64_t now, int64_t forget_before) override;
    std::optional<std::pair<PublishedStats, int64_t>> published(const std::string& drive_id) override;

    // "ok" when SQLite's own consistency check finds nothing wrong, else its first complaint.
    std::string integrity_check();

private:
    void exec(const char* sql);
    void migrate();
    Statement& prepared(const char* sql);
    void forget_old_uploads(int64_t now, int64_t forget_before);
    void checkpoint_in_background(const std::string& path);

    sqlite3* db_ = nullptr;
    std::mutex mutex_;
    struct Cache;
    Cache* cache_;
    int64_t last_prune_ = 0;
    // Copies the write-ahead log back into the database on a connection of its own, so that no
    // request ever waits for that (or for its fsync) while holding the storage.
    std::thread checkpointer_;
    std::mutex checkpoint_mutex_;
    std::condition_variable checkpoint_wake_;
    bool closing_ = false;
};
