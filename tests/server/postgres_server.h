// A private PostgreSQL server for tests: a fresh cluster in a temporary folder, reached only through
// a socket in that folder, tuned for speed instead of durability. One per test binary, started on
// first use; each test takes a new database of its own. A watchdog process removes the server and
// its folder when the test binary ends, however it ends.
#pragma once
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <pwd.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "server_process.h"

class PostgresServer {
public:
    PostgresServer() {
        try {
            why_not_ = start();
        } catch (const std::exception& e) {
            why_not_ = e.what();
        }
    }
    ~PostgresServer() {
        if (watchdog_ <= 0) return;
        close(watchdog_pipe_);  // the watchdog takes it from here
        waitpid(watchdog_, nullptr, 0);
    }
    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

    bool available() const { return why_not_.empty(); }
    const std::string& why_not() const { return why_not_; }

    // A new, empty database: its name, or as a URI that PgStorage and open_storage take.
    std::string new_database() {
        std::string name = "qm_test_" + std::to_string(++databases_);
        sql("CREATE DATABASE " + name);
        return name;
    }
    std::string new_database_uri() { return uri(new_database()); }
    std::string uri(const std::string& database) const { return "postgresql://qm@/" + database + "?host=" + dir_; }

    // Runs statement as the superuser in database; the first value of its first row ("" when
    // none). Throws std::runtime_error when it fails.
    std::string sql(const std::string& statement, const std::string& database = "postgres") {
        std::lock_guard lock(mutex_);
        if (!available()) throw std::runtime_error("PostgreSQL did not start: " + why_not_);
        PGconn* c = PQconnectdb(uri(database).c_str());
        PGresult* r = PQstatus(c) == CONNECTION_OK ? PQexec(c, statement.c_str()) : nullptr;
        ExecStatusType status = r ? PQresultStatus(r) : PGRES_FATAL_ERROR;
        std::string value = status == PGRES_TUPLES_OK && PQntuples(r) > 0 ? PQgetvalue(r, 0, 0) : "";
        std::string error = PQerrorMessage(c);
        PQclear(r);
        PQfinish(c);
        if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK)
            throw std::runtime_error(statement + " failed: " + error);
        return value;
    }

private:
    static constexpr const char* kBin = "/usr/lib/postgresql/15/bin/";

    std::string start() {
        if (access((kBin + std::string("initdb")).c_str(), X_OK) != 0) return std::string(kBin) + "initdb is not there";
        std::string tmpl = (std::filesystem::temp_directory_path() / "qm-pg-XXXXXX").string();
        if (!mkdtemp(tmpl.data())) return "cannot make a folder " + tmpl + ": " + std::strerror(errno);
        dir_ = tmpl;
        // The server refuses to run as root: it runs as the postgres user, in a folder it owns.
        server_uid_ = geteuid();
        if (server_uid_ == 0) {
            passwd* pw = getpwnam("postgres");
            if (!pw || chown(dir_.c_str(), pw->pw_uid, pw->pw_gid) != 0) {
                std::filesystem::remove_all(dir_);
                return "running as root, and " + dir_ + " cannot go to a postgres user to run the server as";
            }
            as_server_ = {"/usr/sbin/runuser", "-u", "postgres", "--"};
            server_uid_ = pw->pw_uid;
        }
        if (std::string why = start_watchdog(); !why.empty()) return why;
        std::string data = dir_ + "/data";
        if (std::string why = new_cluster(data); !why.empty()) return why;
        std::ofstream(data + "/postgresql.conf", std::ios::app)
            << "listen_addresses = ''\nunix_socket_directories = '" << dir_ << "'\n"
            << "fsync = off\nsynchronous_commit = off\nfull_page_writes = off\nmax_connections = 200\n"
            << "shared_buffers = 32MB\n";
        if (run({kBin + std::string("pg_ctl"), "-D", data, "-l", dir_ + "/server.log", "-w", "-t", "60", "start"}) != 0)
            return "the server did not start: " + tail(dir_ + "/server.log");
        return "";
    }

    // initdb takes over a second, so each test binary copies a cluster made once for the machine,
    // kept in the temporary folder. Only one that the server's user owns is trusted.
    std::string new_cluster(const std::string& data) {
        std::string kept = (std::filesystem::temp_directory_path() / "qm-pg-cluster-15-").string() +
                           std::to_string(server_uid_);
        auto trusted = [&] {
            struct stat st;
            return lstat(kept.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == server_uid_;
        };
        if (!trusted()) {
            std::string made = dir_ + "/cluster";
            if (run({kBin + std::string("initdb"), "-D", made, "-U", "qm", "-A", "trust", "-E", "UTF8", "--no-locale",
                     "--no-sync", "--no-instructions", "--wal-segsize=1"}) != 0)
                return "initdb failed: " + tail(dir_ + "/run.log");
            // Whole or not at all; when another test binary was quicker, its cluster is as good.
            if (rename(made.c_str(), kept.c_str()) != 0 && !trusted())
                return rename(made.c_str(), data.c_str()) == 0 ? "" : "cannot move the new cluster";
        }
        return run({"/bin/cp", "-a", kept, data}) == 0 ? "" : "cannot copy " + kept;
    }

    // A shell that waits for this process to end (its end of a pipe closes), then stops the server
    // immediately and removes the folder. In a session of its own, so that Ctrl-C spares it.
    std::string start_watchdog() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return "cannot make a pipe";
        std::string as;
        for (const std::string& word : as_server_) as += word + " ";
        std::string script = "read _; " + as + kBin + "pg_ctl -D " + dir_ + "/data stop -m immediate >/dev/null 2>&1; "
                             "rm -rf " + dir_;
        watchdog_ = spawn_process({"/usr/bin/setsid", "-w", "/bin/sh", "-c", script}, fds[0], -1, -1, false);
        close(fds[0]);
        watchdog_pipe_ = fds[1];
        if (watchdog_ > 0) return "";
        std::filesystem::remove_all(dir_);
        return "cannot start the cleanup process";
    }

    // Runs a program as the server's user, its output into run.log; its exit status.
    int run(const std::vector<std::string>& args) {
        std::vector<std::string> all = as_server_;
        all.insert(all.end(), args.begin(), args.end());
        int log = open((dir_ + "/run.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        int status = exit_status(spawn_process(all, -1, log, log));
        close(log);
        return status;
    }

    static std::string tail(const std::string& path) {
        std::ifstream f(path);
        std::string text((std::istreambuf_iterator<char>(f)), {});
        return text.size() > 600 ? "..." + text.substr(text.size() - 600) : text;
    }

    std::string dir_, why_not_;
    std::vector<std::string> as_server_;
    uid_t server_uid_ = 0;
    pid_t watchdog_ = 0;
    int watchdog_pipe_ = -1;
    std::atomic<int> databases_{0};
    std::mutex mutex_;
};

inline PostgresServer& shared_postgres() {
    static PostgresServer server;
    return server;
}

// The two databases the service runs on; tests that hold for both run once on each.
enum class Backend { Sqlite, Postgres };
inline void PrintTo(Backend b, std::ostream* out) { *out << (b == Backend::Sqlite ? "SQLite" : "PostgreSQL"); }
inline std::string backend_name(const ::testing::TestParamInfo<Backend>& info) {
    return info.param == Backend::Sqlite ? "Sqlite" : "Postgres";
}
#define ON_BOTH_BACKENDS(suite) \
    INSTANTIATE_TEST_SUITE_P(Backends, suite, ::testing::Values(Backend::Sqlite, Backend::Postgres), backend_name)

// At the top of a test that needs the server.
#define SKIP_WITHOUT_POSTGRES()                                                                   \
    if (!shared_postgres().available()) {                                                         \
        std::printf("SKIPPED: PostgreSQL could not start: %s\n", shared_postgres().why_not().c_str()); \
        GTEST_SKIP() << "PostgreSQL could not start: " << shared_postgres().why_not();            \
    }
