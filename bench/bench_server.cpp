// The account service on loopback with 64 keep-alive connections: signed publishes per second
// and their p99 latency, against a baseline of the cheapest answer the same server gives (GET
// /api/v1/me without a token), then the same publishes while real Argon2id sign-ins run, then
// 10,000 malformed, oversized and cut-off requests, after which it must still serve and the
// database must pass SQLite's integrity check.
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "http_front.h"
#include "qm_core.h"
#include "service.h"
#include "sqlite_storage.h"
#include "statistics.h"
#include "temp_dir.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kConnections = 64;
constexpr double kSeconds = 3.0;

int64_t unix_now() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
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
};

// kConnections threads, each on its own keep-alive connection, calling request(thread, i) for
// kSeconds; request returns whether the answer was the expected one.
template <class F>
Result load(int port, F request) {
    std::vector<std::vector<double>> latencies(kConnections);
    std::atomic<long> failures{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    auto t0 = Clock::now();
    for (int c = 0; c < kConnections; ++c)
        threads.emplace_back([&, c] {
            httplib::Client cli("127.0.0.1", port);
            cli.set_keep_alive(true);
            cli.set_tcp_nodelay(true);
            for (long i = 0; !stop; ++i) {
                auto s = Clock::now();
                if (!request(cli, c, i)) ++failures;
                latencies[size_t(c)].push_back(std::chrono::duration<double, std::milli>(Clock::now() - s).count());
            }
        });
    std::this_thread::sleep_for(std::chrono::duration<double>(kSeconds));
    stop = true;
    for (auto& t : threads) t.join();
    double elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
    std::vector<double> all;
    for (auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
    std::sort(all.begin(), all.end());
    Result r;
    r.per_second = double(all.size()) / elapsed;
    r.p50_ms = all.empty() ? 0 : all[all.size() / 2];
    r.p99_ms = all.empty() ? 0 : all[all.size() * 99 / 100];
    r.failures = failures;
    return r;
}

void print(const char* what, const Result& r, const Result& base) {
    std::printf("%-52s %8.0f /s  p50 %6.2f ms  p99 %6.2f ms  failures %ld   ratio to baseline %.2fx\n", what,
                r.per_second, r.p50_ms, r.p99_ms, r.failures, base.per_second > 0 ? r.per_second / base.per_second : 0);
}

// Raw bytes on a fresh connection, closed right after: half requests, junk, lies about lengths.
void send_raw(int port, const std::string& bytes) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
        (void)!write(fd, bytes.data(), bytes.size());
        shutdown(fd, SHUT_WR);
        char buf[512];
        (void)!read(fd, buf, sizeof buf);
    }
    close(fd);
}

long hostile_requests(int port, const Drive& d, const std::string& token) {
    const std::string path = "/api/v1/drives/" + d.id + "/stats";
    const std::string auth = "Authorization: Bearer " + token + "\r\n";
    const std::string kinds[] = {
        "POST " + path + " HTTP/1.1\r\nHost: x\r\n" + auth + "Content-Length: 100\r\n\r\n{\"format\":2",  // cut off
        "POST " + path + " HTTP/1.1\r\nHost: x\r\n" + auth + "Content-Length: 99999999\r\n\r\n{}",          // oversized
        "POST /api/v1/auth/login HTTP/1.1\r\nHost: x\r\nContent-Length: 9\r\n\r\n{\"email\":",             // bad JSON
        "GARBAGE\r\n\r\n",
        "POST " + path + " HTTP/1.1\r\nHost: x\r\n" + auth + "X-QM-Timestamp: 1\r\nX-QM-Signature: " +
            std::string(64, 'f') + "\r\nContent-Length: " + std::to_string(d.body.size()) + "\r\n\r\n" + d.body,  // bad signature
        "POST /api/v1/drives/register HTTP/1.1\r\nHost: x\r\n" + auth + "Transfer-Encoding: chunked\r\n\r\nfffff\r\n{",
    };
    std::atomic<long> sent{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; ++t)
        threads.emplace_back([&, t] {
            for (int i = t; i < 10000; i += 16) {
                send_raw(port, kinds[size_t(i) % std::size(kinds)]);
                ++sent;
            }
        });
    for (auto& t : threads) t.join();
    return sent;
}

}  // namespace

int main() {
    TempDir dir;
    auto storage = std::make_unique<SqliteStorage>(dir / "bench.db");
    storage->add_account("bench@example.org", hash_password("bench password", PasswordCost::interactive()));
    HttpFront front(FrontOptions{});
    int port = front.bind("127.0.0.1", 0);
    ServiceOptions options;
    options.base_url = "http://127.0.0.1:" + std::to_string(port);
    options.hashing_slots = int(std::max(1u, std::thread::hardware_concurrency() / 2));
    Service service(*storage, options);
    std::thread server([&] { front.serve(service); });

    httplib::Client admin("127.0.0.1", port);
    std::string login = "{\"email\":\"bench@example.org\",\"password\":\"bench password\"}";
    auto signed_in = admin.Post("/api/v1/auth/login", login, "application/json");
    std::string token = signed_in ? signed_in->body.substr(10, 64) : "";
    httplib::Headers auth{{"Authorization", "Bearer " + token}};
    std::vector<Drive> drives;
    for (int c = 0; c < kConnections; ++c) {
        drives.push_back(make_drive(dir, c));
        admin.Post("/api/v1/drives/register", auth,
                   "{\"drive_id\":\"" + drives.back().id + "\",\"k_upload\":\"" + drives.back().key + "\",\"label\":\"B\"}",
                   "application/json");
    }
    std::printf("service on 127.0.0.1:%d, %d connections, %.0f s a run, %u cores\n\n", port, kConnections, kSeconds,
                std::thread::hardware_concurrency());

    Result base = load(port, [](httplib::Client& cli, int, long) {
        auto r = cli.Get("/api/v1/me");
        return r && r->status == 401;
    });
    // Each upload differs by trailing white space, so no two share a signature and none is a replay.
    std::string first_failure;  // for the report
    std::mutex failure_lock;
    auto publish = [&](httplib::Client& cli, int c, long i) {
        const Drive& d = drives[size_t(c)];
        std::string ts = std::to_string(unix_now());
        std::string body = d.body + std::string(size_t(i % 4096), ' ');
        httplib::Headers h{{"Authorization", "Bearer " + token}, {"X-QM-Timestamp", ts}, {"X-QM-Signature", d.sign(ts, body)}};
        auto r = cli.Post(("/api/v1/drives/" + d.id + "/stats").c_str(), h, body, "application/json");
        bool ok = r && r->status == 200;
        if (!ok) {
            std::lock_guard lock(failure_lock);
            if (first_failure.empty())
                first_failure = r ? std::to_string(r->status) + " " + r->body : "no answer: " + httplib::to_string(r.error());
        }
        return ok;
    };
    Result publishes = load(port, publish);

    std::atomic<bool> stop_logins{false};
    std::atomic<long> logins{0};
    std::thread login_thread([&] {
        httplib::Client cli("127.0.0.1", port);
        while (!stop_logins)
            if (auto r = cli.Post("/api/v1/auth/login", login, "application/json"); r && r->status == 200) ++logins;
    });
    Result with_logins = load(port, publish);
    stop_logins = true;
    login_thread.join();

    print("baseline: GET /api/v1/me without a token (401)", base, base);
    print("signed publishes", publishes, base);
    print("signed publishes while Argon2id sign-ins run", with_logins, base);
    std::printf("  sign-ins completed alongside: %ld (%.1f /s)\n", logins.load(), double(logins) / kSeconds);
    if (!first_failure.empty()) std::printf("  first failed publish: %s\n", first_failure.c_str());
    std::printf("goal >= 2000 publishes/s: %s; goal p99 < 50 ms: %s; with sign-ins: %s and %s\n",
                publishes.per_second >= 2000 ? "met" : "MISSED", publishes.p99_ms < 50 ? "met" : "MISSED",
                with_logins.per_second >= 2000 ? "met" : "MISSED", with_logins.p99_ms < 50 ? "met" : "MISSED");

    auto t0 = Clock::now();
    long sent = hostile_requests(port, drives[0], token);
    double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    auto still = admin.Get("/api/v1/me", auth);
    std::printf("\n%ld malformed, oversized and cut-off requests in %.1f s; afterwards GET /api/v1/me answers %d; "
                "integrity check: %s\n",
                sent, secs, still ? still->status : 0, storage->integrity_check().c_str());
    front.stop();
    server.join();
    for (Drive& d : drives) qm_close(d.h);
    return 0;
}
