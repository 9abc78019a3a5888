// The account service as it is deployed: qm-server processes of their own, loaded from this
// process over 64 keep-alive loopback connections driven by one epoll loop, with requests signed
// before the clock starts so the generator takes as little of the machine as it can.
//  1. SQLite: signed publishes per second and p99, against the cheapest answer the same server
//     gives (GET /api/v1/me without a token), then the same while real Argon2id sign-ins run.
//  2. PostgreSQL (a private server, when it can start): one instance, then two instances sharing
//     the database. Each instance gets one worker (--threads 1), so an instance rather than the
//     machine or the database is what limits it: the ratio says whether instances scale.
//     The CPU each process used per publish says where the limit lies on this machine.
//  3. 200 slow clients each sending a byte every 2 s, while normal requests are timed.
//  4. 3,000 malformed, oversized and cut-off requests; afterwards the service still answers
//     and the SQLite database passes its integrity check.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "postgres_server.h"
#include "qm_core.h"
#include "server_process.h"
#include "sqlite_storage.h"
#include "statistics.h"
#include "temp_dir.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kConnections = 64;
constexpr double kSeconds = 3.0;
const char* const kEmail = "bench@example.org";
const char* const kPassword = "bench password";

int64_t unix_now() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

double ms_since(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

int connect_to(int port, const char* from = nullptr) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    timeval wait_at_most{10, 0};  // a service that does not answer counts as a failure, not a hang
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait_at_most, sizeof wait_at_most);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    if (from) {
        inet_pton(AF_INET, from, &a.sin_addr);
        bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    }
    a.sin_port = htons(uint16_t(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::string request(const std::string& method, const std::string& path, const std::string& headers = "",
                    const std::string& body = "") {
    return method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers +
           (body.empty() && method == "GET" ? "" : "Content-Type: application/json\r\nContent-Length: " +
                                                       std::to_string(body.size()) + "\r\n") +
           "\r\n" + body;
}

// One answer read whole from a blocking socket: its status and body, 0 when the connection failed,
// -1 when the service kept it open without an answer for 10 s. Cut-off requests are sent with the
// writing side closed after them, as by a client that gave up, and wait 1 s at most.
std::pair<int, std::string> round_trip(int port, const std::string& req, bool give_up = false) {
    int fd = connect_to(port);
    if (fd < 0) return {0, ""};
    if (give_up) {
        timeval wait_at_most{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait_at_most, sizeof wait_at_most);
    }
    std::string got, closing = req;
    if (!give_up) closing.insert(closing.find("\r\n") + 2, "Connection: close\r\n");
    if (write(fd, closing.data(), closing.size()) == ssize_t(closing.size())) {
        if (give_up) shutdown(fd, SHUT_WR);
        char buf[16384];
        ssize_t n;
        while ((n = read(fd, buf, sizeof buf)) > 0) got.append(buf, size_t(n));
        if (n < 0 && errno == EAGAIN) got = "timed out";
    }
    close(fd);
    if (got == "timed out") return {-1, ""};
    if (got.size() < 12) return {0, ""};
    size_t body = got.find("\r\n\r\n");
    return {std::atoi(got.c_str() + 9), body == std::string::npos ? "" : got.substr(body + 4)};
}

struct Drive {
    std::string id, key, body;
    qm_drive* h = nullptr;
    std::string sign(const std::string& ts, const std::string& b) const {
        char out[65];
        qm_sign_upload(h, ts.c_str(), reinterpret_cast<const uint8_t*>(b.data()), int(b.size()), out);
        return out;
    }
};

Drive make_drive(const TempDir& root, int n) {
    std::string dir = root / ("drive" + std::to_string(n));
    deck::StatsOptions o;
    o.seed = uint64_t(n + 1);
    o.days = 240;
    deck::write_statistics(dir, o, false);
    Drive d;
    int err = 0;
    d.h = qm_open(dir.c_str(), &err);
    char id[33], key[65];
    qm_drive_id_hex(d.h, id);
    qm_upload_key_hex(d.h, key);
    d.id = id, d.key = key;
    d.body.resize(size_t(qm_export_json(d.h, nullptr, 0)) + 1);
    d.body.resize(size_t(qm_export_json(d.h, d.body.data(), int(d.body.size()))));
    return d;
}

struct Result {
    double per_second = 0, p50_ms = 0, p99_ms = 0;
    long failures = 0;
    std::string first_failure;
};

// Keeps kConnections connections busy for kSeconds, spread over the ports in turn; next(c) gives
// connection c's next request and the status that counts as success.
template <class Next>
Result load(const std::vector<int>& ports, Next next) {
    struct Conn {
        int fd = -1, port = 0, expect = 0;
        std::string out, in;
        size_t sent = 0;
        Clock::time_point started;
    };
    std::vector<Conn> conns(kConnections);
    int ep = epoll_create1(0);
    std::vector<double> latencies;
    Result r;
    auto start = [&](int c) {
        Conn& k = conns[size_t(c)];
        auto [req, expect] = next(c);
        k.out = std::move(req), k.expect = expect, k.sent = 0, k.in.clear(), k.started = Clock::now();
        if (k.fd < 0) {
            k.fd = connect_to(k.port);
            epoll_event e{EPOLLIN, {.u64 = uint64_t(c)}};
            epoll_ctl(ep, EPOLL_CTL_ADD, k.fd, &e);
        }
        k.sent = size_t(std::max<ssize_t>(0, write(k.fd, k.out.data(), k.out.size())));  // small enough for one write
    };
    auto fail = [&](Conn& k, const std::string& why) {
        ++r.failures;
        if (r.first_failure.empty()) r.first_failure = why;
        epoll_ctl(ep, EPOLL_CTL_DEL, k.fd, nullptr);
        close(k.fd);
        k.fd = -1;
    };
    for (int c = 0; c < kConnections; ++c) conns[size_t(c)].port = ports[size_t(c) % ports.size()], start(c);
    auto t0 = Clock::now();
    epoll_event events[kConnections];
    char buf[65536];
    while (ms_since(t0) < kSeconds * 1000) {
        int n = epoll_wait(ep, events, kConnections, 100);
        for (int i = 0; i < n; ++i) {
            int c = int(events[i].data.u64);
            Conn& k = conns[size_t(c)];
            ssize_t got = read(k.fd, buf, sizeof buf);
            if (got <= 0) {
                fail(k, "the connection closed");
                start(c);
                continue;
            }
            k.in.append(buf, size_t(got));
            size_t head = k.in.find("\r\n\r\n");
            if (head == std::string::npos) continue;
            const char* cl = strcasestr(k.in.c_str(), "content-length:");
            size_t length = cl && cl < k.in.c_str() + head ? size_t(std::atol(cl + 15)) : 0;
            if (k.in.size() < head + 4 + length) continue;
            latencies.push_back(ms_since(k.started));
            int status = std::atoi(k.in.c_str() + 9);
            if (status != k.expect) {
                ++r.failures;
                if (r.first_failure.empty()) r.first_failure = k.in.substr(0, 300);
            }
            start(c);
        }
    }
    double elapsed = ms_since(t0) / 1000;
    for (Conn& k : conns)
        if (k.fd >= 0) close(k.fd);
    close(ep);
    std::sort(latencies.begin(), latencies.end());
    r.per_second = double(latencies.size()) / elapsed;
    r.p50_ms = latencies.empty() ? 0 : latencies[latencies.size() / 2];
    r.p99_ms = latencies.empty() ? 0 : latencies[latencies.size() * 99 / 100];
    return r;
}

void print(const char* what, const Result& r, const Result& base) {
    std::printf("%-58s %7.0f /s  p50 %6.2f ms  p99 %6.2f ms  failures %ld   ratio to baseline %.2fx\n", what,
                r.per_second, r.p50_ms, r.p99_ms, r.failures, base.per_second > 0 ? r.per_second / base.per_second : 0);
    if (!r.first_failure.empty()) std::printf("  first failure: %s\n", r.first_failure.c_str());
}

const char* verdict(bool met) { return met ? "met" : "MISSED"; }

// A signed account with kConnections registered drives, and a pool of publishes signed now:
// each body differs by trailing white space, so none is a replay of another.
class Workload {
public:
    Workload(const TempDir& dir) {
        for (int c = 0; c < kConnections; ++c) drives_.push_back(make_drive(dir, c));
    }
    ~Workload() {
        for (Drive& d : drives_) qm_close(d.h);
    }

    bool sign_in_and_register(int port) {
        auto [status, body] = round_trip(port, request("POST", "/api/v1/auth/login", "",
                                                     std::string("{\"email\":\"") + kEmail + "\",\"password\":\"" +
                                                         kPassword + "\"}"));
        if (status != 200) return false;
        token_ = body.substr(10, 64);
        for (const Drive& d : drives_)
            round_trip(port, request("POST", "/api/v1/drives/register", auth(),
                                   "{\"drive_id\":\"" + d.id + "\",\"k_upload\":\"" + d.key + "\",\"label\":\"B\"}"));
        return true;
    }

    // Signed publishes for about this many seconds of load, made before the clock starts.
    void sign_publishes(int per_connection) {
        std::string ts = std::to_string(unix_now());
        for (auto& pool : pool_) pool.clear();
        pool_.resize(drives_.size());
        for (size_t c = 0; c < drives_.size(); ++c)
            for (int i = 0; i < per_connection; ++i) {
                std::string body = drives_[c].body + std::string(size_t(next_pad_ + i), ' ');
                pool_[c].push_back(request("POST", "/api/v1/drives/" + drives_[c].id + "/stats",
                                           auth() + "X-QM-Timestamp: " + ts + "\r\nX-QM-Signature: " +
                                               drives_[c].sign(ts, body) + "\r\n",
                                           body));
            }
        next_pad_ += per_connection;
        used_.assign(drives_.size(), 0);
    }

    std::pair<std::string, int> next_publish(int c) {
        auto& pool = pool_[size_t(c)];
        size_t& i = used_[size_t(c)];
        if (i >= pool.size()) return {request("GET", "/api/v1/me"), 401};  // ran out: say so in the failures
        return {pool[i++], 200};
    }

    std::string auth() const { return "Authorization: Bearer " + token_ + "\r\n"; }
    const Drive& drive(int c) const { return drives_[size_t(c)]; }

private:
    std::vector<Drive> drives_;
    std::string token_;
    std::vector<std::vector<std::string>> pool_;
    std::vector<size_t> used_;
    int next_pad_ = 0;
};

bool add_user(const std::string& db) {
    std::string cmd = std::string("printf '%s' '") + kPassword + "' | " QM_SERVER_PATH " add-user --db '" + db + "' " +
                      kEmail + " >/dev/null";
    return std::system(cmd.c_str()) == 0;
}

// Publishes through the given instances, with the CPU each process and the database used.
Result publishes(Workload& w, const std::vector<int>& ports) {
    w.sign_publishes(3000);
    return load(ports, [&](int c) { return w.next_publish(c); });
}

Result baseline(const std::vector<int>& ports) {
    return load(ports, [](int) { return std::pair{request("GET", "/api/v1/me"), 401}; });
}

// /proc/PID/stat from the field after the command name on (the name may hold spaces).
std::istringstream stat_fields(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), {});
    size_t close_paren = stat.rfind(')');
    return std::istringstream(close_paren == std::string::npos ? "" : stat.substr(close_paren + 2));
}

// Seconds of CPU a process has used so far (user and system).
double process_cpu_seconds(pid_t pid) {
    std::istringstream fields = stat_fields(pid);
    std::string skip;
    for (int i = 0; i < 11; ++i) fields >> skip;  // state .. cmajflt
    double user = 0, system = 0;
    fields >> user >> system;
    return (user + system) / double(sysconf(_SC_CLK_TCK));
}

// 0 when there is no such process.
pid_t parent_of(pid_t pid) {
    std::istringstream fields = stat_fields(pid);
    std::string state;
    pid_t parent = 0;
    fields >> state >> parent;
    return parent;
}

void sqlite_runs(Workload& w, const TempDir& dir) {
    std::string db = dir / "bench.db";
    if (!add_user(db)) return void(std::printf("qm-server add-user failed\n"));
    ServerProcess server(QM_SERVER_PATH, {"--db", db, "--max-per-address", "0"});
    if (!server.port() || !w.sign_in_and_register(server.port()))
        return void(std::printf("qm-server on SQLite did not start\n"));
    Result base = baseline({server.port()});
    double cpu0 = process_cpu_seconds(server.pid());
    Result pub = publishes(w, {server.port()});
    double cpu_per_publish = (process_cpu_seconds(server.pid()) - cpu0) / (pub.per_second * kSeconds);

    std::atomic<bool> stop{false};
    std::atomic<long> logins{0};
    std::thread signing([&] {
        std::string login = request("POST", "/api/v1/auth/login", "",
                                    std::string("{\"email\":\"") + kEmail + "\",\"password\":\"" + kPassword + "\"}");
        while (!stop) logins += round_trip(server.port(), login).first == 200;
    });
    Result with_logins = publishes(w, {server.port()});
    stop = true;
    signing.join();

    std::printf("SQLite, one instance (%u cores)\n", std::thread::hardware_concurrency());
    print("baseline: GET /api/v1/me without a token (401)", base, base);
    print("signed publishes", pub, base);
    print("signed publishes while Argon2id sign-ins run", with_logins, base);
    std::printf("  sign-ins alongside: %.1f /s; qm-server CPU per publish: %.3f ms\n", double(logins) / kSeconds,
                cpu_per_publish * 1000);
    std::printf("goal >= 2000 publishes/s: %s; p99 < 50 ms: %s\n\n", verdict(pub.per_second >= 2000),
                verdict(pub.p99_ms < 50));
}

// The PostgreSQL server's main process, as its data folder's lock file names it.
pid_t postmaster_pid(PostgresServer& pg) {
    std::ifstream lock(pg.sql("SHOW data_directory") + "/postmaster.pid");
    pid_t pid = 0;
    lock >> pid;
    return pid;
}

// The CPU of the server's main process and every process it started for connections.
double postgres_cpu_seconds(pid_t main) {
    double total = process_cpu_seconds(main);
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        pid_t pid = std::stoi(name);
        if (parent_of(pid) == main) total += process_cpu_seconds(pid);
    }
    return total;
}

void postgres_runs(Workload& w) {
    PostgresServer& pg = shared_postgres();
    if (!pg.available()) return void(std::printf("PostgreSQL: SKIPPED, %s\n\n", pg.why_not().c_str()));
    std::string uri = pg.new_database_uri();
    if (!add_user(uri)) return void(std::printf("qm-server add-user on PostgreSQL failed\n"));
    Result one, two, one_worker, two_full;
    double server_cpu = 0, db_cpu = 0;
    {
        ServerProcess a(QM_SERVER_PATH, {"--db", uri, "--max-per-address", "0"}),
            b(QM_SERVER_PATH, {"--db", uri, "--max-per-address", "0"});
        if (!a.port() || !w.sign_in_and_register(a.port()))
            return void(std::printf("qm-server on PostgreSQL did not start\n"));
        double s0 = process_cpu_seconds(a.pid()), d0 = postgres_cpu_seconds(postmaster_pid(pg));
        one = publishes(w, {a.port()});
        server_cpu = (process_cpu_seconds(a.pid()) - s0) / (one.per_second * kSeconds);
        db_cpu = (postgres_cpu_seconds(postmaster_pid(pg)) - d0) / (one.per_second * kSeconds);
        two_full = publishes(w, {a.port(), b.port()});
    }
    {
        std::vector<std::string> one_worker_args{"--db", uri, "--max-per-address", "0", "--threads", "1"};
        ServerProcess a(QM_SERVER_PATH, one_worker_args), b(QM_SERVER_PATH, one_worker_args);
        publishes(w, {a.port(), b.port()});  // both warm: connections made, statements prepared
        one_worker = publishes(w, {a.port()});
        two = publishes(w, {a.port(), b.port()});
    }
    std::printf("PostgreSQL\n");
    print("signed publishes, one instance", one, one);
    print("two instances, one database (the machine is the limit)", two_full, one);
    print("one instance with one worker", one_worker, one_worker);
    print("two instances with one worker each, one database", two, one_worker);
    std::printf("  CPU per publish: qm-server %.3f ms, PostgreSQL %.3f ms; this machine's %u cores allow about %.0f/s "
                "before the generator's share\n",
                server_cpu * 1000, db_cpu * 1000, std::thread::hardware_concurrency(),
                std::thread::hardware_concurrency() / (server_cpu + db_cpu));
    std::printf("goal >= 2000 publishes/s: %s; p99 < 50 ms: %s; two instances >= 1.6x one: %s\n\n",
                verdict(one.per_second >= 2000), verdict(one.p99_ms < 50),
                verdict(two.per_second >= 1.6 * one_worker.per_second));
}

// Slow clients from addresses of their own, so the per-address cap leaves them all in.
std::vector<int> open_slow_clients(int port, int count) {
    std::vector<int> fds;
    for (int i = 0; i < count; ++i) {
        std::string from = "127.0.0." + std::to_string(10 + i / 25);
        int fd = connect_to(port, from.c_str());
        if (fd >= 0 && write(fd, "POST /api/v1/auth/login HTTP/1.1\r\n", 34) == 34) fds.push_back(fd);
        else if (fd >= 0) close(fd);
    }
    return fds;
}

Result timed_requests(int port, int count) {
    std::vector<double> ms;
    Result r;
    for (int i = 0; i < count; ++i) {
        auto t = Clock::now();
        if (round_trip(port, request("GET", "/api/v1/me")).first != 401) ++r.failures;
        ms.push_back(ms_since(t));
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::sort(ms.begin(), ms.end());
    r.p50_ms = ms[ms.size() / 2];
    r.p99_ms = ms[ms.size() * 99 / 100];
    return r;
}

void slow_client_run(const TempDir& dir) {
    ServerProcess server(QM_SERVER_PATH, {"--db", dir / "slow.db"});
    Result quiet = timed_requests(server.port(), 100);
    std::vector<int> slow = open_slow_clients(server.port(), 200);
    std::atomic<bool> stop{false};
    std::thread dribble([&] {
        while (!stop) {
            for (int fd : slow) (void)!write(fd, "X", 1);
            for (int i = 0; i < 20 && !stop; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Result busy = timed_requests(server.port(), 200);
    stop = true;
    dribble.join();
    for (int fd : slow) close(fd);
    std::printf("200 slow clients (%zu connected), a byte every 2 s each\n", slow.size());
    std::printf("%-58s p50 %6.2f ms  p99 %6.2f ms\n", "baseline: GET /api/v1/me on a quiet service", quiet.p50_ms,
                quiet.p99_ms);
    std::printf("%-58s p50 %6.2f ms  p99 %6.2f ms  failures %ld   ratio to baseline %.2fx\n",
                "the same while the slow clients hold connections", busy.p50_ms, busy.p99_ms, busy.failures,
                quiet.p99_ms > 0 ? busy.p99_ms / quiet.p99_ms : 0);
    std::printf("goal: answered in under 100 ms: %s\n\n", verdict(busy.failures == 0 && busy.p99_ms < 100));
}

constexpr int kHostile = 3000;

// The number of requests the service left open for a second after the client stopped sending.
long hostile_requests(int port, const Drive& d, const std::string& auth) {
    const std::string path = "/api/v1/drives/" + d.id + "/stats";
    const std::string kinds[] = {
        "POST " + path + " HTTP/1.1\r\nHost: x\r\n" + auth + "Content-Length: 100\r\n\r\n{\"format\":2",  // cut off
        "POST " + path + " HTTP/1.1\r\nHost: x\r\n" + auth + "Content-Length: 99999999\r\n\r\n{}",          // oversized
        "POST /api/v1/auth/login HTTP/1.1\r\nHost: x\r\nContent-Length: 9\r\n\r\n{\"email\":",             // bad JSON
        "GARBAGE\r\n\r\n",
        "POST " + path + " HTTP/1.1\r\nHost: x\r\n" + auth + "X-QM-Timestamp: 1\r\nX-QM-Signature: " +
            std::string(64, 'f') + "\r\nContent-Length: " + std::to_string(d.body.size()) + "\r\n\r\n" + d.body,
        "POST /api/v1/drives/register HTTP/1.1\r\nHost: x\r\n" + auth + "Transfer-Encoding: chunked\r\n\r\nfffff\r\n{",
    };
    std::atomic<long> lingered{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; ++t)
        threads.emplace_back([&, t] {
            for (int i = t; i < kHostile; i += 16)
                lingered += round_trip(port, kinds[size_t(i) % std::size(kinds)], true).first < 0;
        });
    for (auto& t : threads) t.join();
    return lingered;
}

void hostile_run(Workload& w, const TempDir& dir) {
    std::string db = dir / "hostile.db";
    add_user(db);
    int still = 0;
    long lingered = 0;
    auto t0 = Clock::now();
    {
        ServerProcess server(QM_SERVER_PATH, {"--db", db, "--max-per-address", "0"});
        w.sign_in_and_register(server.port());
        lingered = hostile_requests(server.port(), w.drive(0), w.auth());
        still = round_trip(server.port(), request("GET", "/api/v1/me", w.auth())).first;
    }
    std::printf("%d malformed, oversized and cut-off requests in %.1f s (%ld left open over a second after the "
                "client gave up, until the request deadline); afterwards GET /api/v1/me answers %d; integrity "
                "check: %s\n",
                kHostile, ms_since(t0) / 1000, lingered, still, SqliteStorage(db).integrity_check().c_str());
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each figure as soon as it is known
    TempDir dir;
    Workload w(dir);
    std::printf("qm-server processes on loopback; %d keep-alive connections from this process, %.0f s a run\n\n",
                kConnections, kSeconds);
    sqlite_runs(w, dir);
    postgres_runs(w);
    slow_client_run(dir);
    hostile_run(w, dir);
    return 0;
}
