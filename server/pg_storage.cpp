#include "pg_storage.h"

#include <libpq-fe.h>
#include <poll.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <unordered_set>

namespace {

// The same numbering as the SQLite schema: migration n brings a database from version n to n + 1.
const char* const kMigrations[] = {
    R"(
CREATE TABLE accounts (
  id BIGSERIAL PRIMARY KEY,
  email TEXT NOT NULL UNIQUE,
  password_hash TEXT NOT NULL
);
CREATE TABLE tokens (
  token_sha256 BYTEA PRIMARY KEY,
  account_id BIGINT NOT NULL REFERENCES accounts(id),
  created BIGINT NOT NULL
);
CREATE TABLE login_failures (
  email TEXT NOT NULL,
  at BIGINT NOT NULL
);
CREATE INDEX login_failures_by_email ON login_failures(email, at);
CREATE TABLE drives (
  drive_id TEXT PRIMARY KEY,
  owner BIGINT NOT NULL REFERENCES accounts(id),
  upload_key BYTEA NOT NULL,
  label TEXT NOT NULL
);
CREATE TABLE uploads (
  drive_id TEXT NOT NULL,
  timestamp BIGINT NOT NULL,
  signature TEXT NOT NULL,
  PRIMARY KEY (drive_id, timestamp, signature)
);
CREATE INDEX uploads_by_time ON uploads(timestamp);
CREATE TABLE published (
  drive_id TEXT PRIMARY KEY REFERENCES drives(drive_id),
  seq BIGINT NOT NULL,
  sessions BIGINT NOT NULL, write_secs BIGINT NOT NULL, longest_secs BIGINT NOT NULL,
  words BIGINT NOT NULL, chars BIGINT NOT NULL, sentences BIGINT NOT NULL,
  newlines BIGINT NOT NULL, saves BIGINT NOT NULL, created BIGINT NOT NULL,
  streak_current BIGINT NOT NULL, streak_best BIGINT NOT NULL, days_written BIGINT NOT NULL,
  days BYTEA NOT NULL,
  published_at BIGINT NOT NULL
);
)",
    R"(
ALTER TABLE tokens ADD COLUMN last_used BIGINT NOT NULL DEFAULT 0;
ALTER TABLE tokens ALTER COLUMN last_used DROP DEFAULT;
-- No use was recorded before: the idle time starts with the upgrade.
UPDATE tokens SET last_used = extract(epoch FROM now())::bigint;
CREATE INDEX tokens_by_use ON tokens(last_used);
DROP TABLE login_failures;
CREATE TABLE login_attempts (
  id BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  email TEXT NOT NULL,
  address TEXT NOT NULL,
  at BIGINT NOT NULL
);
CREATE INDEX login_attempts_by_email ON login_attempts(email, at);
CREATE INDEX login_attempts_by_address ON login_attempts(address, at);
CREATE TABLE login_known (
  email TEXT NOT NULL,
  address TEXT NOT NULL,
  at BIGINT NOT NULL,
  PRIMARY KEY (email, address)
);
CREATE INDEX login_known_by_time ON login_known(at);
)",
};
constexpr int kSchemaVersion = int(std::size(kMigrations));

// Advisory lock keys. The one-number key space (schema) and the two-number one (sign-ins) are
// separate in PostgreSQL; the first numbers of the pairs only keep e-mails and addresses apart.
constexpr int64_t kSchemaLock = 0x716d2d736368656d;
constexpr int kEmailLockClass = 0x716d0001;
constexpr int kAddressLockClass = 0x716d0002;

// Housekeeping deletes are not needed by any decision, so once a minute per process is plenty.
constexpr int64_t kPruneEverySeconds = 60;
// A token's last use is written at most this often: a sign-in read on every request should not
// write on every request.
constexpr int64_t kTokenTouchEverySeconds = 3600;

}  // namespace

namespace pg {

// A statement, prepared on each connection the first time that connection runs it.
struct Sql {
    const char* name;
    const char* text;
    // Run outside a transaction it changes data at once, so a connection lost while it runs leaves
    // unknown whether the change happened.
    bool changes;
};

// The connection broke while a statement ran.
struct Lost : std::runtime_error {
    Lost(const std::string& what, bool in_doubt) : std::runtime_error(what), in_doubt(in_doubt) {}
    bool in_doubt;  // the statement may have committed
};

struct Connection {
    explicit Connection(PGconn* pg) : pg(pg) {}
    ~Connection() { PQfinish(pg); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    PGconn* pg;
    std::unordered_set<const Sql*> prepared;
    bool in_transaction = false;
    std::string password;  // scrubbed from messages
};

}  // namespace pg

namespace {

using pg::Connection;
using pg::Sql;

struct ClearResult {
    void operator()(PGresult* r) const { PQclear(r); }
};
using Result = std::unique_ptr<PGresult, ClearResult>;

std::string percent_decoded(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size() && std::isxdigit(uint8_t(s[i + 1])) && std::isxdigit(uint8_t(s[i + 2]))) {
            out += char(std::stoi(std::string(s.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

// Where the password sits in a URI, as [begin, end) offsets: in the user information
// (user:password@host) or in a password= parameter. npos when there is none.
std::pair<size_t, size_t> password_span(const std::string& uri) {
    size_t scheme = uri.find("://");
    size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    size_t host_end = std::min(uri.find('/', start), uri.find('?', start));
    size_t at = uri.rfind('@', host_end == std::string::npos ? uri.size() : host_end);
    if (at != std::string::npos && at >= start) {
        size_t colon = uri.find(':', start);
        if (colon < at) return {colon + 1, at};
    }
    size_t query = uri.find('?', start);
    if (query == std::string::npos) return {std::string::npos, std::string::npos};
    for (size_t key = query + 1; key < uri.size();) {
        size_t end = std::min(uri.find('&', key), uri.size());
        if (uri.compare(key, 9, "password=") == 0) return {key + 9, end};
        key = end + 1;
    }
    return {std::string::npos, std::string::npos};
}

std::string scrubbed(std::string message, const std::string& password) {
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
    for (const std::string& secret : {password, percent_decoded(password)}) {
        if (secret.empty()) continue;
        for (size_t at = message.find(secret); at != std::string::npos; at = message.find(secret, at + 3))
            message.replace(at, secret.size(), "***");
    }
    return message.empty() ? "no message from the database" : message;
}

std::string error_of(const Connection& c, const PGresult* r = nullptr) {
    const char* m = r ? PQresultErrorMessage(r) : nullptr;
    return scrubbed(m && *m ? m : PQerrorMessage(c.pg), c.password);
}

// Throws unless r is a success. A statement that failed because the connection went is Lost.
Result checked(Connection& c, PGresult* raw, bool changes) {
    Result r(raw);
    ExecStatusType status = r ? PQresultStatus(r.get()) : PGRES_FATAL_ERROR;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) return r;
    std::string why = error_of(c, r.get());
    if (PQstatus(c.pg) != CONNECTION_OK) {
        bool in_doubt = changes && !c.in_transaction;
        throw pg::Lost((in_doubt ? "the database connection broke; whether the change was made is unknown: "
                                 : "the database connection broke: ") + why,
                       in_doubt);
    }
    throw std::runtime_error("database error: " + why);
}

// One or more statements without parameters, results in text.
Result command(Connection& c, const char* sql, bool changes = false) {
    return checked(c, PQexec(c.pg, sql), changes);
}

// Parameters: integers in text, everything else in binary, so that text and bytes arrive exactly.
class Params {
public:
    Params& integer(int64_t v) { return add(std::to_string(v), 0); }
    Params& bytes(std::string_view v) { return add(std::string(v), 1); }

    std::vector<std::string> values;
    std::vector<int> formats;

private:
    Params& add(std::string v, int format) {
        values.push_back(std::move(v));
        formats.push_back(format);
        return *this;
    }
};

// Runs a prepared statement; results come back in binary.
Result exec(Connection& c, const Sql& sql, const Params& p = Params()) {
    if (!c.prepared.contains(&sql)) {
        checked(c, PQprepare(c.pg, sql.name, sql.text, 0, nullptr), false);
        c.prepared.insert(&sql);
    }
    std::vector<const char*> values;
    std::vector<int> lengths;
    for (const std::string& v : p.values) {
        values.push_back(v.data());
        lengths.push_back(int(v.size()));
    }
    PGresult* r =
        PQexecPrepared(c.pg, sql.name, int(values.size()), values.data(), lengths.data(), p.formats.data(), 1);
    return checked(c, r, sql.changes);
}

int64_t integer(const PGresult* r, int row, int col) {
    if (row >= PQntuples(r) || col >= PQnfields(r) || PQgetisnull(r, row, col))
        throw std::runtime_error("database error: a number missing from an answer");
    const auto* p = reinterpret_cast<const uint8_t*>(PQgetvalue(r, row, col));
    int n = PQgetlength(r, row, col);
    if (n != 1 && n != 2 && n != 4 && n != 8)
        throw std::runtime_error("database error: a number of " + std::to_string(n) + " bytes in an answer");
    uint64_t v = p[0] & 0x80 && n > 1 ? ~uint64_t(0) : 0;  // network order, sign-extended
    for (int i = 0; i < n; ++i) v = v << 8 | p[i];
    return int64_t(v);
}

std::string bytes(const PGresult* r, int row, int col) {
    if (row >= PQntuples(r) || col >= PQnfields(r) || PQgetisnull(r, row, col))
        throw std::runtime_error("database error: a value missing from an answer");
    return std::string(PQgetvalue(r, row, col), size_t(PQgetlength(r, row, col)));
}

bool changed_one_row(const PGresult* r) { return std::string_view(PQcmdTuples(const_cast<PGresult*>(r))) == "1"; }

// Begun on construction; rolled back unless committed.
class Transaction {
public:
    explicit Transaction(Connection& c) : c_(c) {
        command(c_, "BEGIN");
        c_.in_transaction = true;
    }
    ~Transaction() {
        if (!c_.in_transaction) return;
        c_.in_transaction = false;
        if (PQstatus(c_.pg) == CONNECTION_OK) PQclear(PQexec(c_.pg, "ROLLBACK"));
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void commit() {
        c_.in_transaction = false;
        command(c_, "COMMIT", true);
    }

private:
    Connection& c_;
};

// True at most once per kPruneEverySeconds for this counter, whichever thread asks.
bool due(std::atomic<int64_t>& last, int64_t now) {
    int64_t before = last.load();
    return now - before >= kPruneEverySeconds && last.compare_exchange_strong(before, now);
}

// Housekeeping must never fail the request that happened to trigger it (concurrent prunes from
// several processes can deadlock each other, and then one simply loses); a lost connection,
// though, is the request's business.
void prune(Connection& c, const Sql& sql, int64_t before) {
    try {
        exec(c, sql, Params().integer(before));
    } catch (const pg::Lost&) {
        throw;
    } catch (const std::runtime_error&) {
    }
}

// Whether an idle connection still works. An idle connection has nothing to read unless the
// server is telling it that it is going away.
bool usable(const Connection& c) {
    if (PQstatus(c.pg) != CONNECTION_OK) return false;
    pollfd p{PQsocket(c.pg), POLLIN, 0};
    return poll(&p, 1, 0) == 0;
}

const Sql kAddAccount{
    "add_account", "INSERT INTO accounts (email, password_hash) VALUES ($1, $2) ON CONFLICT (email) DO NOTHING", true};
const Sql kAccountByEmail{"account_by_email", "SELECT id, email, password_hash FROM accounts WHERE email = $1", false};
// $2 now, $3 only tokens used after this, $4 touched only when last used before this.
const Sql kAccountByToken{"account_by_token", R"(
WITH found AS (SELECT account_id FROM tokens WHERE token_sha256 = $1 AND last_used > $3),
     touched AS (UPDATE tokens SET last_used = $2 WHERE token_sha256 = $1 AND last_used > $3 AND last_used <= $4)
SELECT a.id, a.email, a.password_hash FROM found JOIN accounts a ON a.id = found.account_id)",
                          true};
const Sql kAddToken{"add_token",
                    "INSERT INTO tokens (token_sha256, account_id, created, last_used) VALUES ($1, $2, $3, $3)", true};
const Sql kRevokeToken{"revoke_token", "DELETE FROM tokens WHERE token_sha256 = $1", true};
const Sql kPruneTokens{"prune_tokens", "DELETE FROM tokens WHERE last_used <= $1", false};

// Sign-ins of one e-mail, and sign-ins from one address, wait for each other. Always the e-mail's
// lock first, so two sign-ins never hold one lock each while waiting for the other's.
const Sql kLockSignIns{"lock_sign_ins", "SELECT pg_advisory_xact_lock($1, hashtext($2)), "
                                        "pg_advisory_xact_lock($3, hashtext($4))",
                       false};
// $1 e-mail, $2 address, $3 attempts after this count, $4 known when signed in after this.
const Sql kCountAttempts{"count_attempts", R"(
WITH by_email AS (SELECT address, at FROM login_attempts WHERE email = $1 AND at > $3),
     by_address AS (SELECT at FROM login_attempts WHERE address = $2 AND at > $3)
SELECT (SELECT count(*) FROM by_email WHERE address = $2),
       (SELECT coalesce(min(at), 0) FROM by_email WHERE address = $2),
       (SELECT count(*) FROM by_address), (SELECT coalesce(min(at), 0) FROM by_address),
       (SELECT count(*) FROM by_email), (SELECT coalesce(min(at), 0) FROM by_email),
       EXISTS (SELECT 1 FROM login_known WHERE email = $1 AND address = $2 AND at > $4))",
                         false};
const Sql kAddAttempt{"add_attempt", "INSERT INTO login_attempts (email, address, at) VALUES ($1, $2, $3) RETURNING id",
                      true};
const Sql kLoginSucceeded{"login_succeeded", R"(
WITH forgotten AS (DELETE FROM login_attempts WHERE id = $1 OR (email = $2 AND address = $3))
INSERT INTO login_known (email, address, at) VALUES ($2, $3, $4)
ON CONFLICT (email, address) DO UPDATE SET at = greatest(login_known.at, excluded.at))",
                          true};
const Sql kPruneAttempts{"prune_attempts", "DELETE FROM login_attempts WHERE at <= $1", false};
const Sql kPruneKnown{"prune_known", "DELETE FROM login_known WHERE at <= $1", false};

const Sql kInsertDrive{"insert_drive",
                       "INSERT INTO drives (drive_id, owner, upload_key, label) VALUES ($1, $2, $3, $4) "
                       "ON CONFLICT (drive_id) DO NOTHING",
                       true};
const Sql kRelabelDrive{"relabel_drive",
                        "UPDATE drives SET label = $1 WHERE drive_id = $2 AND owner = $3 AND upload_key = $4", true};
const Sql kDriveOwner{"drive_owner", "SELECT owner FROM drives WHERE drive_id = $1", false};
const Sql kDrive{"drive", "SELECT owner, upload_key, label FROM drives WHERE drive_id = $1", false};

// Records the upload, unless it was seen before, and then the statistics, unless older ones than
// those stored. Both tests hold across processes: a second insert of the same upload waits for
// the first one's transaction, and ON CONFLICT DO UPDATE locks the stored row and tests its
// latest version, even one committed after this statement began. Answers how many uploads and
// statistics were written.
const Sql kPublish{"publish", R"(
WITH fresh AS (INSERT INTO uploads (drive_id, timestamp, signature) VALUES ($1, $2, $3)
               ON CONFLICT DO NOTHING RETURNING drive_id),
     stored AS (
INSERT INTO published (drive_id, seq, sessions, write_secs, longest_secs, words, chars, sentences, newlines, saves,
                       created, streak_current, streak_best, days_written, days, published_at)
SELECT drive_id, $4::bigint, $5::bigint, $6::bigint, $7::bigint, $8::bigint, $9::bigint, $10::bigint, $11::bigint,
       $12::bigint, $13::bigint, $14::bigint, $15::bigint, $16::bigint, $17::bytea, $18::bigint FROM fresh
ON CONFLICT (drive_id) DO UPDATE SET
  seq = excluded.seq, sessions = excluded.sessions, write_secs = excluded.write_secs,
  longest_secs = excluded.longest_secs, words = excluded.words, chars = excluded.chars,
  sentences = excluded.sentences, newlines = excluded.newlines, saves = excluded.saves, created = excluded.created,
  streak_current = excluded.streak_current, streak_best = excluded.streak_best,
  days_written = excluded.days_written, days = excluded.days, published_at = excluded.published_at
WHERE published.seq <= excluded.seq
RETURNING 1)
SELECT (SELECT count(*) FROM fresh), (SELECT count(*) FROM stored))",
                   false};
const Sql kPruneUploads{"prune_uploads", "DELETE FROM uploads WHERE timestamp < $1", false};
const Sql kPublished{"published", R"(
SELECT seq, sessions, write_secs, longest_secs, words, chars, sentences, newlines, saves, created,
       streak_current, streak_best, days_written, days, published_at FROM published WHERE drive_id = $1)",
                     false};

void silence(void*, const char*) {}

}  // namespace

// A connection lent to one operation; back to the pool when it ends.
class PgStorage::Lease {
public:
    Lease(PgStorage& owner, std::unique_ptr<Connection> c) : owner_(owner), c_(std::move(c)) {}
    ~Lease() {
        if (c_) owner_.release(std::move(c_));
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    Connection& operator*() { return *c_; }

private:
    PgStorage& owner_;
    std::unique_ptr<Connection> c_;
};

std::string PgStorage::redacted(const std::string& uri) {
    auto [begin, end] = password_span(uri);
    if (begin == std::string::npos) return uri;
    return uri.substr(0, begin) + "***" + uri.substr(end);
}

PgStorage::PgStorage(const std::string& uri, int pool_size) : uri_(uri), pool_size_(std::max(1, pool_size)) {
    auto [begin, end] = password_span(uri);
    if (begin != std::string::npos) password_ = uri.substr(begin, end - begin);
    std::unique_ptr<Connection> c = connect();
    migrate(*c);
    idle_.push_back(std::move(c));
    open_ = 1;
}

PgStorage::~PgStorage() = default;

std::unique_ptr<Connection> PgStorage::connect() {
    // The URI comes last, so that whatever it sets itself wins over these defaults.
    const char* keys[] = {"connect_timeout", "client_encoding", "fallback_application_name", "dbname", nullptr};
    const char* values[] = {"10", "UTF8", "qm-server", uri_.c_str(), nullptr};
    PGconn* raw = PQconnectdbParams(keys, values, 1);
    if (!raw) throw std::runtime_error("cannot connect to the database: out of memory");
    auto c = std::make_unique<Connection>(raw);
    c->password = password_;
    if (PQstatus(raw) != CONNECTION_OK)
        throw std::runtime_error("cannot connect to the database " + redacted(uri_) + ": " + error_of(*c));
    PQsetNoticeProcessor(raw, silence, nullptr);
    return c;
}

void PgStorage::migrate(Connection& c) {
    Transaction tx(c);
    // Instances starting together take turns; the later ones find the work done.
    command(c, ("SELECT pg_advisory_xact_lock(" + std::to_string(kSchemaLock) + ")").c_str());
    command(c, "CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
    Result r = command(c, "SELECT version FROM schema_version");
    int version = PQntuples(r.get()) > 0 ? std::atoi(PQgetvalue(r.get(), 0, 0)) : 0;
    if (version > kSchemaVersion)
        throw std::runtime_error("the database was made by a newer qm-server (schema " + std::to_string(version) + ")");
    if (version == kSchemaVersion) return;
    for (int v = version; v < kSchemaVersion; ++v) command(c, kMigrations[v]);
    std::string to = std::to_string(kSchemaVersion);
    command(c, (version == 0 ? "INSERT INTO schema_version VALUES (" + to + ")"
                             : "UPDATE schema_version SET version = " + to)
                   .c_str());
    tx.commit();
}

PgStorage::Lease PgStorage::acquire() {
    std::unique_lock lock(mutex_);
    returned_.wait(lock, [this] { return !idle_.empty() || open_ < pool_size_; });
    if (!idle_.empty()) {
        std::unique_ptr<Connection> c = std::move(idle_.back());
        idle_.pop_back();
        return Lease(*this, std::move(c));
    }
    ++open_;
    lock.unlock();
    try {
        return Lease(*this, connect());
    } catch (...) {
        lock.lock();
        --open_;
        returned_.notify_one();
        throw;
    }
}

void PgStorage::release(std::unique_ptr<Connection> c) {
    if (PQstatus(c->pg) == CONNECTION_OK && PQtransactionStatus(c->pg) != PQTRANS_IDLE)
        PQclear(PQexec(c->pg, "ROLLBACK"));
    std::lock_guard lock(mutex_);
    idle_.push_back(std::move(c));
    returned_.notify_one();
}

template <class Operation>
auto PgStorage::run(Retry retry, Operation&& operation) {
    Lease lease = acquire();
    Connection& c = *lease;
    for (int attempt = 0;; ++attempt) {
        if (!usable(c)) {
            c.prepared.clear();  // a new session knows none of them
            PQreset(c.pg);
            if (PQstatus(c.pg) != CONNECTION_OK)
                throw std::runtime_error("lost the database connection and cannot reconnect to " + redacted(uri_) +
                                         ": " + error_of(c));
        }
        try {
            return operation(c);
        } catch (const pg::Lost& lost) {
            if (attempt > 0 || (lost.in_doubt && retry != Retry::Idempotent)) throw;
        }
    }
}

bool PgStorage::add_account(const std::string& email, const std::string& password_hash) {
    return run(Retry::BeforeCommit, [&](Connection& c) {
        return changed_one_row(exec(c, kAddAccount, Params().bytes(email).bytes(password_hash)).get());
    });
}

std::optional<Account> PgStorage::account_by_email(const std::string& email) {
    return run(Retry::Idempotent, [&](Connection& c) -> std::optional<Account> {
        Result r = exec(c, kAccountByEmail, Params().bytes(email));
        if (PQntuples(r.get()) == 0) return std::nullopt;
        return Account{integer(r.get(), 0, 0), bytes(r.get(), 0, 1), bytes(r.get(), 0, 2)};
    });
}

void PgStorage::prune_tokens(Connection& c, int64_t now, int64_t idle_limit) {
    if (due(tokens_pruned_, now)) prune(c, kPruneTokens, now - idle_limit);
}

std::optional<Account> PgStorage::account_by_token(const std::string& token_sha256, int64_t now, int64_t idle_limit) {
    // Short limits (tests, strict deployments) still see every use that matters.
    int64_t touch_every = std::min(kTokenTouchEverySeconds, idle_limit / 16);
    return run(Retry::Idempotent, [&](Connection& c) -> std::optional<Account> {
        prune_tokens(c, now, idle_limit);
        Result r = exec(c, kAccountByToken,
                        Params().bytes(token_sha256).integer(now).integer(now - idle_limit).integer(now - touch_every));
        if (PQntuples(r.get()) == 0) return std::nullopt;
        return Account{integer(r.get(), 0, 0), bytes(r.get(), 0, 1), bytes(r.get(), 0, 2)};
    });
}

void PgStorage::add_token(int64_t account, const std::string& token_sha256, int64_t now) {
    run(Retry::BeforeCommit, [&](Connection& c) {
        exec(c, kAddToken, Params().bytes(token_sha256).integer(account).integer(now));
    });
}

bool PgStorage::revoke_token(const std::string& token_sha256) {
    return run(Retry::BeforeCommit, [&](Connection& c) {
        return changed_one_row(exec(c, kRevokeToken, Params().bytes(token_sha256)).get());
    });
}

void PgStorage::prune_logins(Connection& c, int64_t now, const LoginLimits& limits) {
    if (!due(logins_pruned_, now)) return;
    prune(c, kPruneAttempts, now - limits.window);
    prune(c, kPruneKnown, now - limits.known_for);
}

LoginReservation PgStorage::reserve_login(const std::string& email, const std::string& address, int64_t now,
                                          const LoginLimits& limits) {
    return run(Retry::BeforeCommit, [&](Connection& c) {
        prune_logins(c, now, limits);
        Transaction tx(c);
        exec(c, kLockSignIns,
             Params().integer(kEmailLockClass).bytes(email).integer(kAddressLockClass).bytes(address));
        Result n = exec(c, kCountAttempts,
                        Params().bytes(email).bytes(address).integer(now - limits.window).integer(
                            now - limits.known_for));
        auto refusal = [&](LoginReservation::Refusal why, int col) {
            return LoginReservation{why, 0, std::max<int64_t>(1, integer(n.get(), 0, col + 1) + limits.window - now)};
        };
        bool known = integer(n.get(), 0, 6) != 0;
        if (integer(n.get(), 0, 0) >= limits.per_source) return refusal(LoginReservation::Source, 0);
        if (integer(n.get(), 0, 2) >= limits.per_address) return refusal(LoginReservation::Address, 2);
        if (integer(n.get(), 0, 4) >= limits.per_account && !known) return refusal(LoginReservation::Account, 4);
        Result id = exec(c, kAddAttempt, Params().bytes(email).bytes(address).integer(now));
        int64_t attempt = integer(id.get(), 0, 0);
        tx.commit();
        return LoginReservation{LoginReservation::None, attempt, 0};
    });
}

void PgStorage::login_succeeded(int64_t attempt, const std::string& email, const std::string& address, int64_t now) {
    run(Retry::Idempotent, [&](Connection& c) {
        exec(c, kLoginSucceeded, Params().integer(attempt).bytes(email).bytes(address).integer(now));
    });
}

RegisterResult PgStorage::register_drive(const DriveRecord& d) {
    return run(Retry::BeforeCommit, [&](Connection& c) {
        Transaction tx(c);
        RegisterResult result = RegisterResult::Created;
        if (!changed_one_row(
                exec(c, kInsertDrive, Params().bytes(d.drive_id).integer(d.owner).bytes(d.upload_key).bytes(d.label))
                    .get())) {
            // Only the label can change, and only for the owner: the key stays the one first registered.
            Params relabel;
            relabel.bytes(d.label).bytes(d.drive_id).integer(d.owner).bytes(d.upload_key);
            result = RegisterResult::Updated;
            if (!changed_one_row(exec(c, kRelabelDrive, relabel).get())) {
                Result owner = exec(c, kDriveOwner, Params().bytes(d.drive_id));
                return PQntuples(owner.get()) > 0 && integer(owner.get(), 0, 0) == d.owner
                           ? RegisterResult::KeyDiffers
                           : RegisterResult::OwnedByAnother;
            }
        }
        tx.commit();
        return result;
    });
}

std::optional<DriveRecord> PgStorage::drive(const std::string& drive_id) {
    return run(Retry::Idempotent, [&](Connection& c) -> std::optional<DriveRecord> {
        Result r = exec(c, kDrive, Params().bytes(drive_id));
        if (PQntuples(r.get()) == 0) return std::nullopt;
        return DriveRecord{drive_id, integer(r.get(), 0, 0), bytes(r.get(), 0, 1), bytes(r.get(), 0, 2)};
    });
}

void PgStorage::prune_uploads(Connection& c, int64_t now, int64_t forget_before) {
    if (due(uploads_pruned_, now)) prune(c, kPruneUploads, forget_before);
}

PublishResult PgStorage::publish(const Upload& up, const PublishedStats& st, int64_t now, int64_t forget_before) {
    return run(Retry::BeforeCommit, [&](Connection& c) {
        prune_uploads(c, now, forget_before);
        Transaction tx(c);
        Params p;
        p.bytes(up.drive_id).integer(up.timestamp).bytes(up.signature).integer(st.seq);
        for (uint32_t counter : st.counters) p.integer(counter);
        p.integer(st.streak_current).integer(st.streak_best).integer(st.days_written).bytes(pack_days(st.days));
        p.integer(now);
        Result written = exec(c, kPublish, p);
        if (integer(written.get(), 0, 0) == 0) return PublishResult::Replayed;
        // Rolled back, so that the refused upload is not remembered as seen.
        if (integer(written.get(), 0, 1) == 0) return PublishResult::OlderSeq;
        tx.commit();
        return PublishResult::Accepted;
    });
}

std::optional<std::pair<PublishedStats, int64_t>> PgStorage::published(const std::string& drive_id) {
    return run(Retry::Idempotent, [&](Connection& c) -> std::optional<std::pair<PublishedStats, int64_t>> {
        Result r = exec(c, kPublished, Params().bytes(drive_id));
        if (PQntuples(r.get()) == 0) return std::nullopt;
        const PGresult* row = r.get();
        PublishedStats st;
        int col = 0;
        st.seq = uint32_t(integer(row, 0, col++));
        for (uint32_t& counter : st.counters) counter = uint32_t(integer(row, 0, col++));
        st.streak_current = uint32_t(integer(row, 0, col++));
        st.streak_best = uint32_t(integer(row, 0, col++));
        st.days_written = uint32_t(integer(row, 0, col++));
        st.days = unpack_days(bytes(row, 0, col++));
        return std::pair{st, integer(row, 0, col)};
    });
}
