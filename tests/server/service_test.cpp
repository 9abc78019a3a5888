// The account service over HTTP on loopback: each endpoint's answers and refusals.
#include <regex>

#include "profile_page.h"
#include "server_process.h"

#include "service_fixture.h"

namespace {

// The service's behaviour is the same whichever database keeps its records.
class OnBothBackends : public ServiceFixture, public ::testing::WithParamInterface<Backend> {
protected:
    void SetUp() override {
        backend_ = GetParam();
        ServiceFixture::SetUp();
    }
};

using Sign = OnBothBackends;

TEST_P(Sign, InGivesATokenThatNamesTheAccountAndWrongDetailsGetOneMessage) {
    std::string token = sign_in("Owner@Example.org ");
    EXPECT_TRUE(std::regex_match(token, std::regex("[0-9a-f]{64}"))) << token;
    Answer me = get("/api/v1/me", token);
    EXPECT_EQ(me.status, 200);
    EXPECT_EQ(me.body, "{\"email\":\"owner@example.org\"}");

    Answer wrong_password = post(kLogin, login_body("owner@example.org", "nope"));
    Answer unknown_email = post(kLogin, login_body("nobody@example.org", "nope"));
    EXPECT_EQ(wrong_password.status, 401);
    EXPECT_EQ(unknown_email.status, 401);
    EXPECT_EQ(wrong_password.body, unknown_email.body);

    // Any token the service never issued is refused.
    for (std::string bad : {std::string(64, 'a'), std::string("not hex"), std::string()}) {
        Answer a = get("/api/v1/me", bad);
        EXPECT_EQ(a.status, 401) << bad;
        EXPECT_NE(a.message().find("Sign in"), std::string::npos);
    }
}

TEST_P(Sign, InBacksOffTheSourceOfFailuresNotTheAccount) {
    // The owner signs in from home once; a burst of guesses then comes from elsewhere, all at once.
    ASSERT_EQ(login_from("192.0.2.7", kPassword).status, 200);
    const LoginLimits limits;
    std::vector<std::thread> burst;
    std::atomic<int> evaluated{0}, refused{0};
    for (int i = 0; i < 4 * limits.per_source; ++i)
        burst.emplace_back([&] {
            int status = login_from("198.51.100.1", "guess").status;
            (status == 401 ? evaluated : refused) += status == 401 || status == 429;
        });
    for (auto& t : burst) t.join();
    EXPECT_EQ(evaluated, limits.per_source);
    EXPECT_EQ(refused, 3 * limits.per_source);
    Answer locked = login_from("198.51.100.1", kPassword);
    EXPECT_EQ(locked.status, 429);
    EXPECT_EQ(locked.message(), "Too many failed sign-ins for this e-mail address. Try again in 15 minutes.");
    EXPECT_EQ(login_from("192.0.2.7", kPassword).status, 200) << "the owner's usual address";

    // Guesses spread over many addresses stop at the account's limit, except from where the owner
    // signed in before.
    for (int i = 0; i < limits.per_account; ++i) login_from("203.0.113." + std::to_string(i % 200), "guess");
    Answer stranger = login_from("203.0.113.250", kPassword);
    EXPECT_EQ(stranger.status, 429);
    EXPECT_NE(stranger.message().find("from new places"), std::string::npos) << stranger.body;
    EXPECT_EQ(login_from("192.0.2.7", kPassword).status, 200);

    clock_offset_ = 10 * 60;
    EXPECT_NE(login_from("198.51.100.1", "guess").message().find("Try again in 5 minutes."), std::string::npos);
    clock_offset_ = 15 * 60;
    EXPECT_EQ(login_from("198.51.100.1", kPassword).status, 200);
}

TEST_P(Sign, InEndsWhenSignedOutOrUnusedFor90Days) {
    std::string token = sign_in("owner@example.org"), kept = sign_in("owner@example.org");
    EXPECT_EQ(post("/api/v1/auth/logout", "", token).status, 200);
    EXPECT_EQ(get("/api/v1/me", token).status, 401);
    EXPECT_EQ(post("/api/v1/auth/logout", "", token).status, 401);
    EXPECT_EQ(get("/api/v1/me", kept).status, 200) << "signing out ends only that sign-in";

    std::string idle = sign_in("owner@example.org");
    clock_offset_ = 60 * 86400;
    EXPECT_EQ(get("/api/v1/me", kept).status, 200);
    clock_offset_ = 91 * 86400;
    EXPECT_EQ(get("/api/v1/me", idle).status, 401);
    EXPECT_EQ(get("/api/v1/me", kept).status, 200) << "used 31 days ago";
    clock_offset_ = 182 * 86400;
    EXPECT_EQ(get("/api/v1/me", kept).status, 401);
}

using Drives = OnBothBackends;

TEST_P(Drives, FirstAccountOwnsTheDriveAndNobodyElseChangesIt) {
    DeckDrive drive;
    std::string owner = sign_in("owner@example.org"), other = sign_in("other@example.org");
    EXPECT_EQ(register_drive(drive, owner).status, 200);
    EXPECT_EQ(register_drive(drive, owner, "RENAMED").status, 200);

    Answer taken = register_drive(drive, other, "MINE");
    EXPECT_EQ(taken.status, 409);
    EXPECT_EQ(taken.message(), "That drive belongs to another account.");
    EXPECT_EQ(register_drive(drive, other, "X", std::string(64, '0')).status, 409);
    auto stored = storage_->drive(drive.id());
    EXPECT_EQ(to_hex(reinterpret_cast<const unsigned char*>(stored->upload_key.data()), 32), drive.key());
    EXPECT_EQ(stored->label, "RENAMED") << "the owner renames it, nobody else";
    EXPECT_EQ(register_drive(drive, std::string(64, 'b')).status, 401);
}

// Every refusal is a JSON message that names what is wrong; a malformed request costs no work.
TEST_P(Drives, MalformedRequestsAreRefusedNamingWhatIsWrong) {
    std::string token = sign_in("owner@example.org");
    const std::string id(32, 'a'), key(64, 'b'), login = kLogin, reg = "/api/v1/drives/register";
    auto drive = [](const std::string& i, const std::string& k) { return drive_body(i, k, "L"); };
    struct Case {
        std::string path, body;
        int status;
        const char* words;  // "" for a page rather than a message
    } cases[] = {
        {login, "", 400, "\"email\""},
        {login, "{", 400, "\"email\""},
        {login, "[]", 400, "\"email\""},
        {login, "{\"email\":\"owner@example.org\"}", 400, "\"email\""},
        {login, "{\"email\":1,\"password\":\"x\"}", 400, "\"email\""},
        {login, "{\"email\":\"a\",\"password\":\"b\",\"email\":\"c\"}", 400, "\"email\""},
        {login, login_body(std::string(255, 'a'), "x"), 400, "longer than"},
        {login, login_body(std::string(1 << 19, 'a'), "x"), 400, "longer than"},
        {login, login_body("owner@example.org", std::string(1025, 'p')), 400, "longer than"},
        {reg, "{not json", 400, "\"drive_id\""},
        {reg, "{\"drive_id\":\"" + id + "\",\"k_upload\":\"" + key + "\"}", 400, "\"label\""},
        {reg, drive(id.substr(1), key), 400, "32 hexadecimal"},
        {reg, drive(id + "a", key), 400, "32 hexadecimal"},
        {reg, drive(std::string(31, 'a') + "g", key), 400, "32 hexadecimal"},
        {reg, drive(id, key.substr(1)), 400, "64 hexadecimal"},
        {reg, drive(id, key + "00"), 400, "64 hexadecimal"},
        {"/api/v1/me", "{}", 405, "GET"},
        {"GET /api/v2/me", "", 404, "nothing at this address"},
        {"GET /d/not-a-drive", "", 404, ""},
        {"GET /api/v1/update/check?platform=macos&channel=stable&version=1.0.0", "", 404, "publishes no releases."},
        {"GET /releases/a.zip", "", 404, "publishes no releases."},
    };
    for (const Case& c : cases) {
        Answer a = c.path.starts_with("GET ") ? get(c.path.substr(4)) : post(c.path, c.body, token);
        EXPECT_EQ(a.status, c.status) << c.path << " " << c.body.substr(0, 80);
        if (*c.words) {
            EXPECT_NE(a.message().find(c.words), std::string::npos) << a.body.substr(0, 200);
        }
    }
    // Nothing was counted against anyone: the owner's ten tries are all still there.
    LoginReservation r = storage_->reserve_login("owner@example.org", "127.0.0.1", unix_now(), {.per_source = 1});
    EXPECT_EQ(r.refused, LoginReservation::None);
}

class Publish : public OnBothBackends {
protected:
    void SetUp() override {
        OnBothBackends::SetUp();
        if (IsSkipped()) return;
        owner_ = sign_in("owner@example.org");
        ASSERT_EQ(register_drive(drive_, owner_).status, 200);
    }
    DeckDrive drive_;
    std::string owner_;
};

TEST_P(Publish, AcceptsTheDrivesExportAndShowsItsTotalsOnThePublicPage) {
    EXPECT_EQ(get("/d/" + drive_.id()).status, 404);
    Answer a = publish(drive_, owner_, drive_.export_json());
    ASSERT_EQ(a.status, 200) << a.body;
    auto doc = json::parse(a.body);
    EXPECT_EQ(doc->string_at("profile_url"), base_ + "/d/" + drive_.id());
    EXPECT_EQ(doc->string_at("message"), "Published.");

    auto page = client_->Get(("/d/" + drive_.id()).c_str());
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_EQ(page->get_header_value("Content-Security-Policy"), "default-src 'none'; style-src 'unsafe-inline'");
    qm_summary s = drive_.summary();
    for (const std::string& shown : {grouped(s.words), grouped(s.sessions), duration_text(s.write_secs),
                                     grouped(s.streak_best) + " days", grouped(s.days_written)})
        EXPECT_NE(page->body.find("<td>" + shown + "</td>"), std::string::npos) << shown;
    EXPECT_EQ(page->body.find("<script"), std::string::npos);
    EXPECT_EQ(std::regex_search(page->body, std::regex("(src|href)=")), false);
    // One cell per day of the 53 weeks up to the latest day, the latest week cut at that day.
    EXPECT_GT(count_of(page->body, "<rect"), 52u * 7);
    EXPECT_LE(count_of(page->body, "<rect"), 53u * 7);
}

TEST_P(Publish, RefusesEveryUploadThatIsNotTheOwnersFreshSignedExport) {
    const std::string body = drive_.export_json();
    const std::string other = sign_in("other@example.org");
    const int64_t now = unix_now();
    const std::string seq = "\"seq\":" + std::to_string(drive_.summary().seq);
    const std::string stats = "/api/v1/drives/" + drive_.id() + "/stats";
    auto mine = [&](const std::string& b, int64_t at, const std::string& signature = "") {
        return publish(drive_, owner_, b, at, signature);
    };
    auto changed = [&](const std::string& from, const std::string& to) { return with(body, from, to); };
    ASSERT_EQ(mine(body, now).status, 200);

    struct Case {
        const char* what;
        Answer answer;
        int status;
        const char* words;
    } cases[] = {
        {"tampered body", mine(changed("\"words\":", "\"words\":1"), now, drive_.sign(std::to_string(now), body)), 401,
         "signature"},
        {"stale timestamp", mine(body, now - Service::kTimestampWindow - 5), 400, "5 minutes"},
        {"from the future", mine(body, now + Service::kTimestampWindow + 5), 400, "clock"},
        {"replay", mine(body, now), 409, "received before"},
        {"lower seq", mine(changed(seq, "\"seq\":0"), now + 1), 409, "older"},
        {"another account", publish(drive_, other, body, now + 2), 409, "another account"},
        {"forgotten token", publish(drive_, std::string(64, 'c'), body, now + 3), 401, "Sign in"},
        {"no signature", post(stats, body, owner_), 400, "X-QM-Signature"},
        {"not JSON", mine("counts", now + 4), 400, "JSON object"},
        {"another drive's id inside", mine(changed(drive_.id(), std::string(32, '0')), now + 5), 400, "drive_id"},
        {"older format", mine(changed("\"format\":2", "\"format\":1"), now + 6), 400, "format 2"},
        {"negative counter", mine(changed("\"saves\":", "\"saves\":-"), now + 7), 400, "saves"},
        {"over 1 MiB", mine(body + std::string(Service::kMaxBody, ' '), now + 8), 413, "1 MiB"},
        {"unregistered drive", post(with(stats, drive_.id(), std::string(32, 'e')), body, owner_), 404,
         "not registered"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.answer.status, c.status) << c.what << ": " << c.answer.body;
        EXPECT_NE(c.answer.message().find(c.words), std::string::npos) << c.what << ": " << c.answer.body;
    }
    // None of them changed what is published; the same counts under a new timestamp still go through.
    EXPECT_EQ(storage_->published(drive_.id())->first.seq, drive_.summary().seq);
    EXPECT_EQ(mine(body, now + 9).status, 200);
}

ON_BOTH_BACKENDS(Sign);
ON_BOTH_BACKENDS(Drives);
ON_BOTH_BACKENDS(Publish);

// The public page as a real browser renders it, when headless Chromium is installed.
using PageInBrowser = ServiceFixture;

TEST_F(PageInBrowser, ShowsThePublishedTotalsAndTheHeatMap) {
    if (access("/usr/bin/chromium", X_OK) != 0)
        GTEST_SKIP() << "SKIPPED: Chromium is not installed (Debian package chromium)";
    DeckDrive drive;
    std::string token = sign_in("owner@example.org");
    ASSERT_EQ(register_drive(drive, token).status, 200);
    ASSERT_EQ(publish(drive, token, drive.export_json()).status, 200);
    // No sandbox: test machines often run as root, where Chromium refuses to start with one.
    std::string cmd = "/usr/bin/chromium --headless --no-sandbox --disable-gpu --no-first-run --user-data-dir=" +
                      (dir_ / "chromium") + " --dump-dom " + base_ + "/d/" + drive.id() + " 2>/dev/null";
    std::string dom = output_of(cmd);
    ASSERT_NE(dom.find("Writing statistics"), std::string::npos) << dom.substr(0, 400);
    qm_summary s = drive.summary();
    for (std::string shown : {"<td>" + grouped(s.words) + "</td>", "<td>" + duration_text(s.write_secs) + "</td>",
                              std::string("<svg"), std::string("<rect")})
        EXPECT_NE(dom.find(shown), std::string::npos) << shown;
}

// Two qm-server processes on one PostgreSQL database are one service: what one accepted or
// counted, the other knows.
class TwoInstances : public ServiceFixture {
protected:
    void SetUp() override {}  // the processes are the service
};

TEST_F(TwoInstances, OnOneDatabaseRefuseReplaysAndCountSignInsTogether) {
    SKIP_WITHOUT_POSTGRES();
    std::string db = shared_postgres().new_database_uri();
    std::string add = std::string("printf '%s' '") + kPassword + "' | " QM_SERVER_PATH " add-user --db '" + db +
                      "' --fast-hash-for-tests owner@example.org >/dev/null";
    ASSERT_EQ(std::system(add.c_str()), 0);
    const std::vector<std::string> args{"--db", db, "--fast-hash-for-tests"};
    ServerProcess a(QM_SERVER_PATH, args), b(QM_SERVER_PATH, args);
    ASSERT_TRUE(a.port() && b.port());
    DeckDrive drive;
    const std::string body = drive.export_json();
    const int64_t now = unix_now();
    talk_to(a.url());
    std::string token = sign_in("owner@example.org");
    talk_to(b.url());
    ASSERT_EQ(register_drive(drive, token).status, 200);
    talk_to(a.url());
    EXPECT_EQ(publish(drive, token, body, now).status, 200);
    talk_to(b.url());
    EXPECT_EQ(publish(drive, token, body, now).status, 409) << "replayed to the other";

    // Wrong passwords in parallel, half to each: no more are evaluated than one source may try.
    const LoginLimits limits;
    const std::string guess = login_body("owner@example.org", "guess");
    std::atomic<int> evaluated{0};
    std::vector<std::thread> burst;
    for (int i = 0; i < 4 * limits.per_source; ++i)
        burst.emplace_back([&, i] {
            httplib::Client c(i % 2 ? b.url() : a.url());
            evaluated += from(c.Post(kLogin, guess, "application/json")).status == 401;
        });
    for (auto& t : burst) t.join();
    EXPECT_EQ(evaluated, limits.per_source);

    EXPECT_EQ(post("/api/v1/auth/logout", "", token).status, 200);
    talk_to(a.url());
    EXPECT_EQ(get("/api/v1/me", token).status, 401) << "signed out at the other";
}

}  // namespace
