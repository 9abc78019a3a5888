// The account service on a free loopback port over a temporary database, with cheap password
// hashes and a clock the test can move, plus drives written by the deck simulator to publish.
#pragma once
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "http_front.h"
#include "json.h"
#include "passwords.h"
#include "qm_core.h"
#include "service.h"
#include "open_storage.h"
#include "postgres_server.h"
#include "statistics.h"
#include "temp_dir.h"

inline int64_t unix_now() {
    return std::time(nullptr);
}

// text with its first `from` replaced by `to`.
inline std::string with(std::string text, const std::string& from, const std::string& to) {
    size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

inline size_t count_of(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// What a shell command prints on its standard output.
inline std::string output_of(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    char buf[4096];
    for (size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    if (p) pclose(p);
    return out;
}

inline std::string login_body(const std::string& email, const std::string& password) {
    return "{\"email\":\"" + email + "\",\"password\":\"" + password + "\"}";
}
inline std::string drive_body(const std::string& id, const std::string& key, const std::string& label) {
    return "{\"drive_id\":\"" + id + "\",\"k_upload\":\"" + key + "\",\"label\":\"" + label + "\"}";
}

// A drive as the deck writes it, opened through the core.
class DeckDrive {
public:
    explicit DeckDrive(uint64_t seed = 5, int days = 60) {
        deck::StatsOptions o;
        o.seed = seed;
        o.days = days;
        EXPECT_EQ(deck::write_statistics(dir_.path(), o, false), "");
        int err = 0;
        h_ = qm_open(dir_.path().c_str(), &err);
        EXPECT_TRUE(h_) << qm_strerror(err);
    }
    ~DeckDrive() { qm_close(h_); }
    DeckDrive(const DeckDrive&) = delete;
    DeckDrive& operator=(const DeckDrive&) = delete;

    std::string id() const {
        char out[33];
        qm_drive_id_hex(h_, out);
        return out;
    }
    std::string key() const {
        char out[65];
        qm_upload_key_hex(h_, out);
        return out;
    }
    std::string export_json() const {
        std::string out(size_t(qm_export_json(h_, nullptr, 0)) + 1, '\0');
        out.resize(size_t(qm_export_json(h_, out.data(), int(out.size()))));
        return out;
    }
    std::string sign(const std::string& timestamp, const std::string& body) const {
        char out[65];
        qm_sign_upload(h_, timestamp.c_str(), reinterpret_cast<const uint8_t*>(body.data()), int(body.size()), out);
        return out;
    }
    std::vector<qm_day> days() const {
        std::vector<qm_day> out(QM_RING_SLOTS);
        out.resize(size_t(std::max(qm_days_get(h_, out.data(), int(out.size())), 0)));
        return out;
    }
    qm_summary summary() const {
        qm_summary s{};
        qm_summary_get(h_, &s);
        return s;
    }

private:
    TempDir dir_;
    qm_drive* h_ = nullptr;
};

class ServiceFixture : public ::testing::Test {
protected:
    static constexpr const char* kPassword = "correct horse battery staple";
    static constexpr const char* kLogin = "/api/v1/auth/login";

    // tls: serve HTTPS with a certificate made now by the openssl command.
    void start(bool tls = false, FrontOptions front_options = {}) {
        if (backend_ == Backend::Postgres) {
            SKIP_WITHOUT_POSTGRES();
            storage_ = open_storage(shared_postgres().new_database_uri());
        } else {
            storage_ = open_storage(dir_ / "accounts.db");
        }
        for (const char* who : {"owner@example.org", "other@example.org"})
            ASSERT_TRUE(storage_->add_account(who, hash_password(kPassword, PasswordCost::fastest())));
        if (tls) {
            front_options.tls_cert = dir_ / "cert.pem";
            front_options.tls_key = dir_ / "key.pem";
            std::string cmd = "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost -addext "
                              "subjectAltName=IP:127.0.0.1 -keyout " + front_options.tls_key + " -out " +
                              front_options.tls_cert + " 2>/dev/null";
            ASSERT_EQ(std::system(cmd.c_str()), 0) << "the openssl command could not make a certificate";
        }
        front_ = std::make_unique<HttpFront>(front_options);
        port_ = front_->bind("127.0.0.1", 0);
        ASSERT_GT(port_, 0);
        base_ = std::string(tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_);
        ServiceOptions options;
        options.base_url = base_;
        options.cost = PasswordCost::fastest();
        options.clock = [this] { return unix_now() + clock_offset_.load(); };
        options.releases_dir = releases_dir_;
        service_ = std::make_unique<Service>(*storage_, options);
        thread_ = std::thread([this] { front_->serve(*service_); });
        talk_to(base_, tls ? front_options.tls_cert : "");
        for (int i = 0; i < 200 && !client_->Get("/"); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // Where the helpers below send their requests: this fixture's service unless told otherwise.
    void talk_to(const std::string& base, const std::string& ca_cert = "") {
        client_ = std::make_unique<httplib::Client>(base);
        if (!ca_cert.empty()) client_->set_ca_cert_path(ca_cert.c_str());
        client_->set_connection_timeout(5);
        client_->set_read_timeout(30);
    }

    void SetUp() override { start(); }
    void TearDown() override {
        if (front_) front_->stop();
        if (thread_.joinable()) thread_.join();
    }

    struct Answer {
        int status = 0;
        std::string body;
        std::string message() const {
            auto doc = json::parse(body);
            auto m = doc ? doc->string_at("message") : std::nullopt;
            return m.value_or("(no message in " + body + ")");
        }
    };
    static Answer from(const httplib::Result& r) { return r ? Answer{r->status, r->body} : Answer{}; }

    Answer post(const std::string& path, const std::string& body, const std::string& token = "",
                httplib::Headers headers = {}) {
        if (!token.empty()) headers.emplace("Authorization", "Bearer " + token);
        return from(client_->Post(path.c_str(), headers, body, "application/json"));
    }
    Answer get(const std::string& path, const std::string& token = "") {
        httplib::Headers headers;
        if (!token.empty()) headers.emplace("Authorization", "Bearer " + token);
        return from(client_->Get(path.c_str(), headers));
    }

    // The owner's sign-in straight to the service, as if from address: the front fills it from the socket.
    Answer login_from(const std::string& address, const std::string& password) {
        ServiceRequest r;
        r.method = "POST";
        r.path = kLogin;
        r.address = address;
        r.body = login_body("owner@example.org", password);
        ServiceResponse res = service_->handle(r);
        return Answer{res.status, res.body};
    }

    std::string sign_in(const std::string& email) {
        Answer a = post(kLogin, login_body(email, kPassword));
        EXPECT_EQ(a.status, 200) << a.body;
        auto doc = json::parse(a.body);
        return doc ? doc->string_at("token").value_or("") : "";
    }
    Answer register_drive(const DeckDrive& d, const std::string& token, const std::string& label = "DECK",
                          const std::string& key = "") {
        return post("/api/v1/drives/register", drive_body(d.id(), key.empty() ? d.key() : key, label), token);
    }
    Answer publish(const DeckDrive& d, const std::string& token, const std::string& body, int64_t timestamp = 0,
                   std::string signature = "") {
        std::string ts = std::to_string(timestamp ? timestamp : unix_now());
        if (signature.empty()) signature = d.sign(ts, body);
        return post("/api/v1/drives/" + d.id() + "/stats", body, token,
                    {{"X-QM-Timestamp", ts}, {"X-QM-Signature", signature}});
    }

    TempDir dir_;
    Backend backend_ = Backend::Sqlite;
    std::unique_ptr<Storage> storage_;
    std::unique_ptr<HttpFront> front_;
    std::unique_ptr<Service> service_;
    std::unique_ptr<httplib::Client> client_;
    std::thread thread_;
    std::atomic<int64_t> clock_offset_{0};
    std::string releases_dir_;  // the release feed's folder when set before start()
    int port_ = 0;
    std::string base_;
};
