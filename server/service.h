// The account service's endpoints as plain functions of a request: no sockets here, so the
// whole behaviour can be tested in-process and served by any HTTP front.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <semaphore>
#include <string>
#include <vector>

#include "passwords.h"
#include "storage.h"

class FileBody;
class ReleaseFeed;

struct ServiceRequest {
    std::string method;
    std::string path;
    std::map<std::string, std::string> query;  // percent-decoded; the first of repeated names
    std::string authorization;  // the Authorization header as sent
    std::string timestamp;      // X-QM-Timestamp
    std::string signature;      // X-QM-Signature
    std::string address;        // the client's IP address as text, what sign-in limits fall on
    std::string body;
};

struct ServiceResponse {
    int status = 200;
    std::string content_type = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    std::shared_ptr<FileBody> file;  // when set, the body is this file, streamed by the front
};

struct ServiceOptions {
    std::string base_url;  // what profile addresses start with, without a trailing "/"
    PasswordCost cost = PasswordCost::interactive();  // for the hash that unknown e-mails are checked against
    int hashing_slots = 1;                            // password hashes run at once, at most
    std::function<int64_t()> clock;                   // Unix seconds; the system clock when empty
    std::string releases_dir;                         // the release feed's folder; no feed when empty
    LoginLimits login_limits;
};

class Service {
public:
    static constexpr size_t kMaxBody = 1024 * 1024;
    static constexpr int64_t kTimestampWindow = 5 * 60;
    static constexpr size_t kMaxEmail = 254;
    static constexpr size_t kMaxPassword = 1024;
    static constexpr int64_t kTokenIdleLimit = 90 * 86400;  // a sign-in unused this long has ended

    Service(Storage& storage, ServiceOptions options);
    ~Service();

    // Never throws: a failure of the storage becomes a 500 with a message.
    ServiceResponse handle(const ServiceRequest& request);

private:
    ServiceResponse route(const ServiceRequest& r);
    ServiceResponse login(const ServiceRequest& r);
    ServiceResponse logout(const ServiceRequest& r);
    ServiceResponse me(const ServiceRequest& r);
    ServiceResponse register_drive(const ServiceRequest& r);
    ServiceResponse publish(const ServiceRequest& r, const std::string& drive_id);
    ServiceResponse profile_page(const std::string& drive_id);

    std::optional<std::string> presented_token(const ServiceRequest& r);
    std::optional<Account> signed_in(const ServiceRequest& r);
    std::optional<ServiceResponse> refuse_upload_headers(const ServiceRequest& r, const DriveRecord& drive);
    int64_t now() const;

    Storage& storage_;
    ServiceOptions options_;
    std::string dummy_hash_;  // checked for unknown e-mails, so they take as long as wrong passwords
    std::counting_semaphore<1024> hashing_;
    std::unique_ptr<ReleaseFeed> releases_;
};

// "a" to "f" and digits only, lower-cased; none when text is not exactly digits hex digits.
std::optional<std::string> normalised_hex(const std::string& text, size_t digits);
