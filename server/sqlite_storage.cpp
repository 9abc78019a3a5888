#include "sqlite_storage.h"

#include <sqlite3.h>

#include <chrono>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>

namespace {

const char* const kSchemaVersion1 = R"(
CREATE TABLE accounts (
  id INTEGER PRIMARY KEY,
  email TEXT NOT NULL UNIQUE,
  password_hash TEXT NOT NULL
);
CREATE TABLE tokens (
  token_sha256 BLOB PRIMARY KEY,
  account_id INTEGER NOT NULL REFERENCES accounts(id),
  created INTEGER NOT NULL
) WITHOUT ROWID;
CREATE TABLE login_failures (
  email TEXT NOT NULL,
  at INTEGER NOT NULL
);
CREATE INDEX login_failures_by_email ON login_failures(email, at);
CREATE TABLE drives (
  drive_id TEXT PRIMARY KEY,
  owner INTEGER NOT NULL REFERENCES accounts(id),
  upload_key BLOB NOT NULL,
  label TEXT NOT NULL
) WITHOUT ROWID;
CREATE TABLE uploads (
  drive_id TEXT NOT NULL,
  timestamp INTEGER NOT NULL,
  signature TEXT NOT NULL,
  PRIMARY KEY (drive_id, timestamp, signature)
) WITHOUT ROWID;
CREATE INDEX uploads_by_time ON uploads(timestamp);
CREATE TABLE published (
  drive_id TEXT PRIMARY KEY REFERENCES drives(drive_id),
  seq INTEGER NOT NULL,
  sessions INTEGER NOT NULL, write_secs INTEGER NOT NULL, longest_secs INTEGER NOT NULL,
  words INTEGER NOT NULL, chars INTEGER NOT NULL, sentences INTEGER NOT NULL,
  newlines INTEGER NOT NULL, saves INTEGER NOT NULL, created INTEGER NOT NULL,
  streak_current INTEGER NOT NULL, streak_best INTEGER NOT NULL, days_written INTEGER NOT NULL,
  days BLOB NOT NULL,
  published_at INTEGER NOT NULL
) WITHOUT ROWID;
)";

// Tokens end after a time unused; sign-in attempts are counted per source, not only per e-mail.
const char* const kSchemaVersion2 = R"(
ALTER TABLE tokens ADD COLUMN last_used INTEGER NOT NULL DEFAULT 0;
-- No use was recorded before: the 90 days start with the upgrade.
UPDATE tokens SET last_used = CAST(strftime('%s', 'now') AS INTEGER);
CREATE INDEX tokens_by_use ON tokens(last_used);
DROP TABLE login_failures;
CREATE TABLE login_attempts (
  id INTEGER PRIMARY KEY,
  email TEXT NOT NULL,
  address TEXT NOT NULL,
  at INTEGER NOT NULL
);
CREATE INDEX login_attempts_by_email ON login_attempts(email, at);
CREATE INDEX login_attempts_by_address ON login_attempts(address, at);
CREATE TABLE login_known (
  email TEXT NOT NULL,
  address TEXT NOT NULL,
  at INTEGER NOT NULL,
  PRIMARY KEY (email, address)
) WITHOUT ROWID;
)";

const char* const kMigrations[] = {kSchemaVersion1, kSchemaVersion2};
constexpr int64_t kSchemaVersion = std::size(kMigrations);

// Rows that no longer decide anything (uploads whose time stamps are refused anyway, ended
// sign-in attempts and tokens) go once a minute: small tables without a delete in every request.
constexpr int64_t kPruneEverySeconds = 60;
constexpr int64_t kTokenUseResolution = 3600;

// Whether a prune is due, marking it done when it is.
bool due(int64_t& last, int64_t now) {
    if (now - last < kPruneEverySeconds) return false;
    last = now;
    return true;
}

}  // namespace

class Statement {
public:
    Statement(sqlite3* db, const char* sql) : db_(db) {
        if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr) != SQLITE_OK)
            throw std::runtime_error(std::string("database statement failed to prepare: ") + sqlite3_errmsg(db));
    }
    ~Statement() { sqlite3_finalize(stmt_); }

    Statement& bind(int i, int64_t v) { return check(sqlite3_bind_int64(stmt_, i, v)); }
    Statement& bind(int i, const std::string& v) {
        return check(sqlite3_bind_text(stmt_, i, v.data(), int(v.size()), SQLITE_TRANSIENT));
    }
    Statement& bind_blob(int i, const std::string& v) {
        return check(sqlite3_bind_blob(stmt_, i, v.data(), int(v.size()), SQLITE_TRANSIENT));
    }

    // true while there is a row to read.
    bool step() {
        int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW) return true;
        if (rc == SQLITE_DONE) return false;
        throw std::runtime_error(std::string("database error: ") + sqlite3_errmsg(db_));
    }
    void run() {
        try {
            step();
        } catch (...) {
            reset();
            throw;
        }
        reset();
    }
    void reset() {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }

    int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }
    std::string text(int col) const {
        const void* p = sqlite3_column_blob(stmt_, col);
        return p ? std::string(static_cast<const char*>(p), size_t(sqlite3_column_bytes(stmt_, col))) : std::string();
    }

private:
    Statement& check(int rc) {
        if (rc != SQLITE_OK) throw std::runtime_error(std::string("database error: ") + sqlite3_errmsg(db_));
        return *this;
    }
    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
};

namespace {

// Resets a statement when the operation that used it ends, however it ends.
struct Using {
    Statement& s;
    ~Using() { s.reset(); }
};

}  // namespace

struct SqliteStorage::Cache {
    std::map<const char*, std::unique_ptr<Statement>> statements;
};

SqliteStorage::SqliteStorage(const std::string& path) : cache_(new Cache) {
    int rc =
        sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        std::string why = db_ ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        delete cache_;
        throw std::runtime_error("cannot open the database " + path + ": " + why);
    }
    try {
        sqlite3_busy_timeout(db_, 5000);  // add-user may write while the service runs
        exec("PRAGMA journal_mode=WAL");
        exec("PRAGMA synchronous=NORMAL");
        exec("PRAGMA foreign_keys=ON");
        exec("PRAGMA wal_autocheckpoint=0");
        migrate();
        checkpoint_in_background(path);
    } catch (...) {
        delete cache_;
        sqlite3_close(db_);
        throw;
    }
}

SqliteStorage::~SqliteStorage() {
    {
        std::lock_guard lock(checkpoint_mutex_);
        closing_ = true;
    }
    checkpoint_wake_.notify_all();
    if (checkpointer_.joinable()) checkpointer_.join();
    delete cache_;  // statements first: a connection with live statements does not close
    sqlite3_close(db_);
}

void SqliteStorage::checkpoint_in_background(const std::string& path) {
    sqlite3* own = nullptr;
    if (sqlite3_open_v2(path.c_str(), &own, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK) {
        sqlite3_close(own);
        throw std::runtime_error("cannot open the database " + path + " a second time for checkpoints");
    }
    checkpointer_ = std::thread([this, own] {
        std::unique_lock lock(checkpoint_mutex_);
        while (!checkpoint_wake_.wait_for(lock, std::chrono::milliseconds(500), [this] { return closing_; }))
            sqlite3_wal_checkpoint_v2(own, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
        sqlite3_wal_checkpoint_v2(own, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
        sqlite3_close(own);
    });
}

void SqliteStorage::exec(const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        std::string why = error ? error : "unknown error";
        sqlite3_free(error);
        throw std::runtime_error("database error: " + why);
    }
}

void SqliteStorage::migrate() {
    exec("BEGIN IMMEDIATE");
    try {
        exec("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
        int64_t version = 0;
        {
            Statement read(db_, "SELECT version FROM schema_version");
            if (read.step()) version = read.integer(0);
        }
        if (version > kSchemaVersion)
            throw std::runtime_error("the database was made by a newer qm-server (schema " + std::to_string(version) +
                                     ")");
        for (int64_t v = version; v < kSchemaVersion; ++v) exec(kMigrations[v]);
        if (version == 0) Statement(db_, "INSERT INTO schema_version VALUES (0)").run();
        Statement(db_, "UPDATE schema_version SET version = ?").bind(1, kSchemaVersion).run();
        exec("COMMIT");
    } catch (...) {
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

Statement& SqliteStorage::prepared(const char* sql) {
    auto& slot = cache_->statements[sql];
    if (!slot) slot = std::make_unique<Statement>(db_, sql);
    return *slot;
}

bool SqliteStorage::add_account(const std::string& email, const std::string& password_hash) {
    std::lock_guard lock(mutex_);
    Statement& s = prepared("INSERT OR IGNORE INTO accounts (email, password_hash) VALUES (?, ?)");
    s.bind(1, email).bind(2, password_hash).run();
    return sqlite3_changes(db_) == 1;
}

std::optional<Account> SqliteStorage::account_by_email(const std::string& email) {
    std::lock_guard lock(mutex_);
    Statement& s = prepared("SELECT id, email, password_hash FROM accounts WHERE email = ?");
    Using u{s};
    if (!s.bind(1, email).step()) return std::nullopt;
    return Account{s.integer(0), s.text(1), s.text(2)};
}

std::optional<Account> SqliteStorage::account_by_token(const std::string& token_sha256, int64_t now,
                                                       int64_t idle_limit) {
    std::lock_guard lock(mutex_);
    if (due(last_token_prune_, now))
        prepared("DELETE FROM tokens WHERE last_used <= ?").bind(1, now - idle_limit).run();
    Statement& s = prepared(
        "SELECT a.id, a.email, a.password_hash, t.last_used FROM tokens t JOIN accounts a ON a.id = t.account_id "
        "WHERE t.token_sha256 = ? AND t.last_used > ?");
    std::optional<Account> account;
    int64_t last_used = 0;
    {
        Using u{s};
        if (!s.bind_blob(1, token_sha256).bind(2, now - idle_limit).step()) return std::nullopt;
        account = Account{s.integer(0), s.text(1), s.text(2)};
        last_used = s.integer(3);
    }
    // Once an hour is exact enough for a 90-day limit and spares a write on every request.
    if (now - last_used >= kTokenUseResolution) {
        Statement& touch = prepared("UPDATE tokens SET last_used = ? WHERE token_sha256 = ?");
        touch.bind(1, now).bind_blob(2, token_sha256).run();
    }
    return account;
}

void SqliteStorage::add_token(int64_t account, const std::string& token_sha256, int64_t now) {
    std::lock_guard lock(mutex_);
    prepared("INSERT INTO tokens (token_sha256, account_id, created, last_used) VALUES (?, ?, ?, ?)")
        .bind_blob(1, token_sha256)
        .bind(2, account)
        .bind(3, now)
        .bind(4, now)
        .run();
}

bool SqliteStorage::revoke_token(const std::string& token_sha256) {
    std::lock_guard lock(mutex_);
    prepared("DELETE FROM tokens WHERE token_sha256 = ?").bind_blob(1, token_sha256).run();
    return sqlite3_changes(db_) == 1;
}

// The count of attempts since a moment matching one or two keys, and the oldest one's time.
std::pair<int64_t, int64_t> SqliteStorage::attempts_since(const char* sql, const std::string& key,
                                                          const std::string* second, int64_t since) {
    Statement& s = prepared(sql);
    Using u{s};
    s.bind(1, key);
    if (second) s.bind(2, *second);
    s.bind(second ? 3 : 2, since).step();
    return {s.integer(0), s.integer(1)};
}

LoginReservation SqliteStorage::reserve_login(const std::string& email, const std::string& address, int64_t now,
                                              const LoginLimits& limits) {
    std::lock_guard lock(mutex_);
    // IMMEDIATE takes the write lock first: another process sharing the file waits here, so no two
    // attempts are counted against the same numbers.
    exec("BEGIN IMMEDIATE");
    try {
        if (due(last_login_prune_, now)) {
            prepared("DELETE FROM login_attempts WHERE at <= ?").bind(1, now - limits.window).run();
            prepared("DELETE FROM login_known WHERE at <= ?").bind(1, now - limits.known_for).run();
        }
        int64_t since = now - limits.window;
        LoginReservation r;
        auto refuse_when = [&](std::pair<int64_t, int64_t> counted, int limit, LoginReservation::Refusal why) {
            if (r.refused != LoginReservation::None || counted.first < limit) return;
            r.refused = why;
            r.retry_after = std::max<int64_t>(1, counted.second + limits.window - now);
        };
        refuse_when(
            attempts_since("SELECT count(*), min(at) FROM login_attempts WHERE email = ? AND address = ? AND at > ?",
                           email, &address, since),
            limits.per_source, LoginReservation::Source);
        refuse_when(attempts_since("SELECT count(*), min(at) FROM login_attempts WHERE address = ? AND at > ?", address,
                                   nullptr, since),
                    limits.per_address, LoginReservation::Address);
        if (r.refused == LoginReservation::None && !known_address(email, address, now - limits.known_for))
            refuse_when(attempts_since("SELECT count(*), min(at) FROM login_attempts WHERE email = ? AND at > ?", email,
                                       nullptr, since),
                        limits.per_account, LoginReservation::Account);
        if (r.refused == LoginReservation::None) {
            prepared("INSERT INTO login_attempts (email, address, at) VALUES (?, ?, ?)")
                .bind(1, email)
                .bind(2, address)
                .bind(3, now)
                .run();
            r.attempt = sqlite3_last_insert_rowid(db_);
        }
        exec("COMMIT");
        return r;
    } catch (...) {
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

bool SqliteStorage::known_address(const std::string& email, const std::string& address, int64_t since) {
    Statement& s = prepared("SELECT 1 FROM login_known WHERE email = ? AND address = ? AND at > ?");
    Using u{s};
    return s.bind(1, email).bind(2, address).bind(3, since).step();
}

void SqliteStorage::login_succeeded(int64_t attempt, const std::string& email, const std::string& address,
                                    int64_t now) {
    std::lock_guard lock(mutex_);
    exec("BEGIN IMMEDIATE");
    try {
        prepared("DELETE FROM login_attempts WHERE id = ? OR (email = ? AND address = ?)")
            .bind(1, attempt)
            .bind(2, email)
            .bind(3, address)
            .run();
        prepared("INSERT OR REPLACE INTO login_known (email, address, at) VALUES (?, ?, ?)")
            .bind(1, email)
            .bind(2, address)
            .bind(3, now)
            .run();
        exec("COMMIT");
    } catch (...) {
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

RegisterResult SqliteStorage::register_drive(const DriveRecord& d) {
    std::lock_guard lock(mutex_);
    Statement& insert =
        prepared("INSERT OR IGNORE INTO drives (drive_id, owner, upload_key, label) VALUES (?, ?, ?, ?)");
    insert.bind(1, d.drive_id).bind(2, d.owner).bind_blob(3, d.upload_key).bind(4, d.label).run();
    if (sqlite3_changes(db_) == 1) return RegisterResult::Created;
    // Only the label can change, and only for the owner: the key stays the one first registered.
    Statement& update = prepared("UPDATE drives SET label = ? WHERE drive_id = ? AND owner = ? AND upload_key = ?");
    update.bind(1, d.label).bind(2, d.drive_id).bind(3, d.owner).bind_blob(4, d.upload_key).run();
    if (sqlite3_changes(db_) == 1) return RegisterResult::Updated;
    Statement& owner = prepared("SELECT owner FROM drives WHERE drive_id = ?");
    Using u{owner};
    return owner.bind(1, d.drive_id).step() && owner.integer(0) == d.owner ? RegisterResult::KeyDiffers
                                                                            : RegisterResult::OwnedByAnother;
}

std::optional<DriveRecord> SqliteStorage::drive(const std::string& drive_id) {
    std::lock_guard lock(mutex_);
    Statement& s = prepared("SELECT owner, upload_key, label FROM drives WHERE drive_id = ?");
    Using u{s};
    if (!s.bind(1, drive_id).step()) return std::nullopt;
    return DriveRecord{drive_id, s.integer(0), s.text(1), s.text(2)};
}

void SqliteStorage::forget_old_uploads(int64_t now, int64_t forget_before) {
    if (!due(last_upload_prune_, now)) return;
    prepared("DELETE FROM uploads WHERE timestamp < ?").bind(1, forget_before).run();
}

PublishResult SqliteStorage::publish(const Upload& up, const PublishedStats& st, int64_t now, int64_t forget_before) {
    std::lock_guard lock(mutex_);
    exec("BEGIN IMMEDIATE");
    try {
        forget_old_uploads(now, forget_before);
        prepared("INSERT OR IGNORE INTO uploads (drive_id, timestamp, signature) VALUES (?, ?, ?)")
            .bind(1, up.drive_id)
            .bind(2, up.timestamp)
            .bind(3, up.signature)
            .run();
        PublishResult result = PublishResult::Accepted;
        if (sqlite3_changes(db_) == 0) {
            result = PublishResult::Replayed;
        } else {
            Statement& last = prepared("SELECT seq FROM published WHERE drive_id = ?");
            Using u{last};
            if (last.bind(1, up.drive_id).step() && int64_t(st.seq) < last.integer(0)) result = PublishResult::OlderSeq;
        }
        if (result != PublishResult::Accepted) {
            exec("ROLLBACK");
            return result;
        }
        Statement& put = prepared(
            "INSERT OR REPLACE INTO published VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
        int col = 0;
        auto next = [&](int64_t v) { put.bind(++col, v); };
        put.bind(++col, up.drive_id);
        next(st.seq);
        for (uint32_t c : st.counters) next(c);
        next(st.streak_current);
        next(st.streak_best);
        next(st.days_written);
        put.bind_blob(++col, pack_days(st.days));
        next(now);
        put.run();
        exec("COMMIT");
        return PublishResult::Accepted;
    } catch (...) {
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

std::optional<std::pair<PublishedStats, int64_t>> SqliteStorage::published(const std::string& drive_id) {
    std::lock_guard lock(mutex_);
    Statement& s = prepared("SELECT * FROM published WHERE drive_id = ?");
    Using u{s};
    if (!s.bind(1, drive_id).step()) return std::nullopt;
    PublishedStats st;
    int col = 1;
    st.seq = uint32_t(s.integer(col++));
    for (uint32_t& c : st.counters) c = uint32_t(s.integer(col++));
    st.streak_current = uint32_t(s.integer(col++));
    st.streak_best = uint32_t(s.integer(col++));
    st.days_written = uint32_t(s.integer(col++));
    st.days = unpack_days(s.text(col++));
    return std::pair{st, s.integer(col)};
}

std::string SqliteStorage::integrity_check() {
    std::lock_guard lock(mutex_);
    Statement s(db_, "PRAGMA integrity_check");
    return s.step() ? s.text(0) : "no answer";
}
