#include "service.h"

#include <sodium.h>

#include <chrono>
#include <cstdio>

#include "json.h"
#include "profile_page.h"
#include "release_feed.h"

namespace {

ServiceResponse answer(int status, std::string body) {
    ServiceResponse r;
    r.status = status;
    r.body = std::move(body);
    return r;
}

ServiceResponse refuse(int status, const std::string& message) { return answer(status, json::message(message)); }

const char* const kNotSignedIn = "You are not signed in, or your sign-in has ended. Sign in on the Account tab.";
const char* const kWrongCredentials = "The e-mail address or the password is not right.";
const char* const kDriveIdForm = "The drive id must be 32 hexadecimal digits.";
const char* const kNoReleases = "This service publishes no releases.";

std::string lower_ascii(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    return s;
}

std::string trimmed(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r\n"), e = s.find_last_not_of(" \t\r\n");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

// A decimal count of Unix seconds, as the app sends it.
std::optional<int64_t> unix_seconds(const std::string& text) {
    if (text.empty() || text.size() > 12) return std::nullopt;
    int64_t n = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        n = n * 10 + (c - '0');
    }
    return n;
}

bool starts_with(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

}  // namespace

std::optional<std::string> normalised_hex(const std::string& text, size_t digits) {
    if (text.size() != digits) return std::nullopt;
    for (char c : text)
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) return std::nullopt;
    return lower_ascii(text);
}

Service::Service(Storage& storage, ServiceOptions options)
    : storage_(storage), options_(std::move(options)), hashing_(std::max(1, options_.hashing_slots)) {
    if (sodium_init() < 0) throw std::runtime_error("libsodium could not start");
    dummy_hash_ = hash_password("not a password anyone has", options_.cost);
    if (!options_.releases_dir.empty()) releases_ = std::make_unique<ReleaseFeed>(options_.releases_dir);
}

Service::~Service() = default;

int64_t Service::now() const {
    if (options_.clock) return options_.clock();
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

ServiceResponse Service::handle(const ServiceRequest& request) {
    try {
        return route(request);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qm-server: %s %s failed: %s\n", request.method.c_str(), request.path.c_str(), e.what());
        return refuse(500, "The service could not complete this request. Try again in a few minutes.");
    }
}

ServiceResponse Service::route(const ServiceRequest& r) {
    const std::string& p = r.path;
    auto only = [&](const char* method) -> std::optional<ServiceResponse> {
        if (r.method == method) return std::nullopt;
        ServiceResponse res = refuse(405, std::string("This address only answers ") + method + " requests.");
        res.headers.emplace_back("Allow", method);
        return res;
    };
    if (p == "/api/v1/auth/login") {
        if (auto wrong = only("POST")) return *wrong;
        return login(r);
    }
    if (p == "/api/v1/auth/logout") {
        if (auto wrong = only("POST")) return *wrong;
        return logout(r);
    }
    if (p == "/api/v1/me") {
        if (auto wrong = only("GET")) return *wrong;
        return me(r);
    }
    if (p == "/api/v1/drives/register") {
        if (auto wrong = only("POST")) return *wrong;
        return register_drive(r);
    }
    const std::string drives = "/api/v1/drives/", stats = "/stats";
    if (starts_with(p, drives.c_str()) && p.size() > drives.size() + stats.size() &&
        p.compare(p.size() - stats.size(), stats.size(), stats) == 0) {
        if (auto wrong = only("POST")) return *wrong;
        return publish(r, p.substr(drives.size(), p.size() - drives.size() - stats.size()));
    }
    if (p == "/api/v1/update/check") {
        if (auto wrong = only("GET")) return *wrong;
        if (!releases_) return refuse(404, kNoReleases);
        return releases_->check(r.query);
    }
    const std::string releases = "/releases/";
    if (starts_with(p, releases.c_str())) {
        if (auto wrong = only("GET")) return *wrong;
        if (!releases_) return refuse(404, kNoReleases);
        return releases_->archive(p.substr(releases.size()));
    }
    if (starts_with(p, "/d/")) {
        if (auto wrong = only("GET")) return *wrong;
        return profile_page(p.substr(3));
    }
    return refuse(404, "There is nothing at this address. Check the service address set in QM_SERVER.");
}

// The digest of the bearer token the request presents, when it presents one of the right form.
std::optional<std::string> Service::presented_token(const ServiceRequest& r) {
    if (!starts_with(r.authorization, "Bearer ")) return std::nullopt;
    auto token = normalised_hex(trimmed(r.authorization.substr(7)), 64);
    if (!token) return std::nullopt;
    return token_digest(*token);
}

std::optional<Account> Service::signed_in(const ServiceRequest& r) {
    auto digest = presented_token(r);
    if (!digest) return std::nullopt;
    return storage_.account_by_token(*digest, now(), kTokenIdleLimit);
}

namespace {

// Holds one of the service's password-hashing slots for as long as it lives.
class HashingSlot {
public:
    explicit HashingSlot(std::counting_semaphore<1024>& s)
        : s_(s), held_(s.try_acquire_for(std::chrono::seconds(10))) {}
    ~HashingSlot() {
        if (held_) s_.release();
    }
    explicit operator bool() const { return held_; }

private:
    std::counting_semaphore<1024>& s_;
    bool held_;
};

ServiceResponse too_many_attempts(const LoginReservation& refusal) {
    int64_t minutes = std::max<int64_t>(1, (refusal.retry_after + 59) / 60);
    std::string in = std::to_string(minutes) + (minutes == 1 ? " minute" : " minutes");
    std::string text;
    switch (refusal.refused) {
    case LoginReservation::Address:
        text = "Too many failed sign-ins from your network. Try again in " + in + ".";
        break;
    case LoginReservation::Account:
        text = "Too many failed sign-ins for this e-mail address from new places. Try again in " + in +
               ", or from where you signed in before.";
        break;
    default: text = "Too many failed sign-ins for this e-mail address. Try again in " + in + "."; break;
    }
    ServiceResponse res = refuse(429, text);
    res.headers.emplace_back("Retry-After", std::to_string(refusal.retry_after));
    return res;
}

}  // namespace

ServiceResponse Service::login(const ServiceRequest& r) {
    auto doc = json::parse(r.body);
    auto email = doc ? doc->string_at("email") : std::nullopt;
    auto password = doc ? doc->string_at("password") : std::nullopt;
    if (!email || !password)
        return refuse(400, "Send the e-mail address and the password as JSON text fields \"email\" and \"password\".");
    // Both are bounded before anything is stored or hashed: an address has at most 254 bytes, and
    // no one types a password of kilobytes.
    if (email->size() > kMaxEmail)
        return refuse(400, "The e-mail address is longer than 254 bytes, which no e-mail address can be.");
    if (password->size() > kMaxPassword) return refuse(400, "The password is longer than 1,024 bytes.");
    std::string who = lower_ascii(trimmed(*email));
    std::string from = r.address.empty() ? "unknown" : r.address;
    int64_t t = now();
    LoginReservation attempt = storage_.reserve_login(who, from, t, options_.login_limits);
    if (attempt.refused != LoginReservation::None) return too_many_attempts(attempt);
    // Hashing is slow on purpose; a bounded number at once keeps cores free for everything else.
    HashingSlot slot(hashing_);
    if (!slot) return refuse(503, "The service is busy signing other people in. Try again in a minute.");
    std::optional<Account> account = storage_.account_by_email(who);
    bool matches = password_matches(account ? account->password_hash : dummy_hash_, *password);
    if (!account || !matches) return refuse(401, kWrongCredentials);
    storage_.login_succeeded(attempt.attempt, who, from, t);
    std::string token = new_token();
    storage_.add_token(account->id, token_digest(token), t);
    return answer(200, "{\"token\":" + json::quote(token) + "}");
}

ServiceResponse Service::logout(const ServiceRequest& r) {
    auto digest = presented_token(r);
    if (!digest || !storage_.account_by_token(*digest, now(), kTokenIdleLimit) || !storage_.revoke_token(*digest))
        return refuse(401, kNotSignedIn);
    return answer(200, json::message("Signed out. The sign-in no longer works anywhere."));
}

ServiceResponse Service::me(const ServiceRequest& r) {
    auto account = signed_in(r);
    if (!account) return refuse(401, kNotSignedIn);
    return answer(200, "{\"email\":" + json::quote(account->email) + "}");
}

ServiceResponse Service::register_drive(const ServiceRequest& r) {
    auto account = signed_in(r);
    if (!account) return refuse(401, kNotSignedIn);
    auto doc = json::parse(r.body);
    auto id = doc ? doc->string_at("drive_id") : std::nullopt;
    auto key = doc ? doc->string_at("k_upload") : std::nullopt;
    auto label = doc ? doc->string_at("label") : std::nullopt;
    if (!id || !key || !label)
        return refuse(400, "Send the drive as JSON text fields \"drive_id\", \"k_upload\" and \"label\".");
    auto drive_id = normalised_hex(*id, 32);
    if (!drive_id) return refuse(400, kDriveIdForm);
    unsigned char key_bytes[32];
    if (!from_hex(*key, key_bytes, sizeof key_bytes))
        return refuse(400, "The upload key must be 64 hexadecimal digits.");
    if (label->size() > 256) return refuse(400, "The drive's label is too long; 256 bytes at most.");
    DriveRecord drive{*drive_id, account->id, std::string(reinterpret_cast<char*>(key_bytes), sizeof key_bytes),
                      *label};
    sodium_memzero(key_bytes, sizeof key_bytes);
    switch (storage_.register_drive(drive)) {
    case RegisterResult::Created: return answer(200, json::message("The drive is registered with your account."));
    case RegisterResult::Updated: return answer(200, json::message("The drive's label is updated."));
    case RegisterResult::KeyDiffers:
        return refuse(409, "This drive is registered with another upload key, which cannot change.");
    case RegisterResult::OwnedByAnother: break;
    }
    return refuse(409, "That drive belongs to another account.");
}

std::optional<ServiceResponse> Service::refuse_upload_headers(const ServiceRequest& r, const DriveRecord& drive) {
    auto ts = unix_seconds(r.timestamp);
    unsigned char sent[32];
    if (!ts || !from_hex(r.signature, sent, sizeof sent))
        return refuse(400,
                      "The upload needs X-QM-Timestamp (Unix seconds) and X-QM-Signature (64 hexadecimal digits).");
    if (*ts < now() - kTimestampWindow || *ts > now() + kTimestampWindow)
        return refuse(400, "The upload's time differs from the service's clock by more than 5 minutes. "
                           "Check the computer's date and time, then publish again.");
    unsigned char mac[crypto_auth_hmacsha256_BYTES];
    crypto_auth_hmacsha256_state st;
    crypto_auth_hmacsha256_init(&st, reinterpret_cast<const unsigned char*>(drive.upload_key.data()),
                                drive.upload_key.size());
    crypto_auth_hmacsha256_update(&st, reinterpret_cast<const unsigned char*>(r.timestamp.data()), r.timestamp.size());
    crypto_auth_hmacsha256_update(&st, reinterpret_cast<const unsigned char*>("."), 1);
    crypto_auth_hmacsha256_update(&st, reinterpret_cast<const unsigned char*>(r.body.data()), r.body.size());
    crypto_auth_hmacsha256_final(&st, mac);
    if (sodium_memcmp(mac, sent, sizeof mac) != 0)
        return refuse(401, "The upload's signature does not match this drive's key: the statistics changed on the "
                           "way or come from another drive. Publish again from the drive itself.");
    return std::nullopt;
}

ServiceResponse Service::publish(const ServiceRequest& r, const std::string& path_id) {
    if (r.body.size() > kMaxBody)
        return refuse(413, "The statistics are larger than 1 MiB; no drive's export is that large.");
    auto account = signed_in(r);
    if (!account) return refuse(401, kNotSignedIn);
    auto drive_id = normalised_hex(path_id, 32);
    if (!drive_id) return refuse(400, kDriveIdForm);
    auto drive = storage_.drive(*drive_id);
    if (!drive)
        return refuse(404, "This drive is not registered yet. Publish from the Statistics tab, which registers it.");
    if (drive->owner != account->id) return refuse(409, "That drive belongs to another account.");
    if (auto refused = refuse_upload_headers(r, *drive)) return *refused;
    auto stats = read_export(r.body, *drive_id);
    if (auto* error = std::get_if<std::string>(&stats)) return refuse(400, *error);
    Upload upload{*drive_id, *unix_seconds(r.timestamp), lower_ascii(r.signature)};
    int64_t t = now();
    switch (storage_.publish(upload, std::get<PublishedStats>(stats), t, t - kTimestampWindow)) {
    case PublishResult::Replayed:
        return refuse(409,
                      "This exact upload was received before and is not taken twice. Publish again to send it anew.");
    case PublishResult::OlderSeq:
        return refuse(409, "These statistics are older than the ones already published for this drive. "
                           "Publish from the drive with the latest statistics.");
    case PublishResult::Accepted: break;
    }
    std::string url = options_.base_url + "/d/" + *drive_id;
    return answer(200, "{\"message\":\"Published.\",\"profile_url\":" + json::quote(url) + "}");
}

ServiceResponse Service::profile_page(const std::string& path_id) {
    auto drive_id = normalised_hex(path_id, 32);
    auto published = drive_id ? storage_.published(*drive_id) : std::nullopt;
    ServiceResponse res;
    res.content_type = "text/html; charset=utf-8";
    // Nothing on the page may load or run anything, whatever a future edit puts in it.
    res.headers.emplace_back("Content-Security-Policy", "default-src 'none'; style-src 'unsafe-inline'");
    if (!published) {
        res.status = 404;
        res.body = render_missing_page();
        return res;
    }
    res.body = render_profile_page(published->first, published->second);
    return res;
}
