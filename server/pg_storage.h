// The storage in a PostgreSQL database, which several qm-server processes may share. Nothing that
// decides a request is kept here: every decision is made inside the database, under its locks.
#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "storage.h"

namespace pg {
struct Connection;
}

class PgStorage : public Storage {
public:
    // uri is a libpq connection URI (postgresql://user@host:port/database?...). Connects and brings
    // the schema up to date; throws std::runtime_error with a readable message (never the password)
    // when it cannot. At most pool_size connections are opened, as requests need them.
    explicit PgStorage(const std::string& uri, int pool_size = 8);
    ~PgStorage() override;
    PgStorage(const PgStorage&) = delete;
    PgStorage& operator=(const PgStorage&) = delete;

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

    // The URI with its password, if any, replaced by "***": for messages and logs.
    static std::string redacted(const std::string& uri);

private:
    using Connection = pg::Connection;
    // Whether an operation may run again after its connection broke. Any operation may when it broke
    // before the commit was sent; only Idempotent ones when the commit may have happened already.
    enum class Retry { Idempotent, BeforeCommit };
    class Lease;
    template <class Operation>
    auto run(Retry retry, Operation&& operation);

    std::unique_ptr<Connection> connect();
    Lease acquire();
    void release(std::unique_ptr<Connection> c);
    void migrate(Connection& c);
    void prune_logins(Connection& c, int64_t now, const LoginLimits& limits);
    void prune_uploads(Connection& c, int64_t now, int64_t forget_before);
    void prune_tokens(Connection& c, int64_t now, int64_t idle_limit);

    std::string uri_;
    std::string password_;  // scrubbed from libpq's messages
    const int pool_size_;
    std::mutex mutex_;
    std::condition_variable returned_;
    std::vector<std::unique_ptr<Connection>> idle_;
    int open_ = 0;  // connections in idle_ plus those lent out
    // Housekeeping deletes, each at most once a minute per process.
    std::atomic<int64_t> uploads_pruned_{0}, logins_pruned_{0}, tokens_pruned_{0};
};
