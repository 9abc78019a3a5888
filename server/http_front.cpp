#include "http_front.h"

#include <httplib.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "json.h"
#include "release_feed.h"

namespace {

ServiceRequest to_service_request(const httplib::Request& req) {
    ServiceRequest r;
    r.method = req.method == "HEAD" ? "GET" : req.method;
    r.path = req.path;
    for (auto& [name, value] : req.params) r.query.emplace(name, value);
    r.authorization = req.get_header_value("Authorization");
    r.timestamp = req.get_header_value("X-QM-Timestamp");
    r.signature = req.get_header_value("X-QM-Signature");
    r.body = req.body;
    return r;
}

// What the library answers on its own (a body too large, a request it cannot read) still gets
// a message a person can act on.
const char* library_error_text(int status) {
    switch (status) {
    case 413: return "The request is larger than 1 MiB; no drive's statistics are that large.";
    case 414: return "The address is too long.";
    case 400: return "The request could not be read. Update the app, or check what sends it.";
    default: return "The service could not answer this request. Try again in a few minutes.";
    }
}

// Sends the file a piece at a time from where the client is, so an archive of any size takes
// one small buffer; a file cut short while sending ends the connection rather than padding it.
void stream_file(httplib::Response& res, std::shared_ptr<FileBody> file, const std::string& content_type) {
    res.set_content_provider(size_t(file->size()), content_type,
                             [file](size_t offset, size_t length, httplib::DataSink& sink) {
                                 char buf[64 * 1024];
                                 ssize_t n;
                                 do n = pread(file->fd(), buf, std::min(length, sizeof buf), off_t(offset));
                                 while (n < 0 && errno == EINTR);
                                 return n > 0 && sink.write(buf, size_t(n));
                             });
}

}  // namespace

bool is_loopback(const std::string& host) {
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

HttpFront::HttpFront(const FrontOptions& options) : tls_(!options.tls_cert.empty()) {
    if (tls_) {
        auto ssl = std::make_unique<httplib::SSLServer>(options.tls_cert.c_str(), options.tls_key.c_str());
        if (!ssl->is_valid())
            throw std::runtime_error("cannot load the TLS certificate " + options.tls_cert + " and key " + options.tls_key);
        server_ = std::move(ssl);
    } else {
        server_ = std::make_unique<httplib::Server>();
    }
    int threads = std::max(2, options.threads);
    server_->new_task_queue = [threads] { return new httplib::ThreadPool(size_t(threads)); };
    server_->set_payload_max_length(Service::kMaxBody);
    server_->set_keep_alive_max_count(1000);
    server_->set_tcp_nodelay(true);  // small answers on kept-alive connections must not wait for an ACK
    server_->set_read_timeout(10, 0);
    server_->set_write_timeout(10, 0);

    server_->set_error_handler([](const httplib::Request&, httplib::Response& res) {
        if (res.body.empty()) res.set_content(json::message(library_error_text(res.status)), "application/json");
    });
}

HttpFront::~HttpFront() = default;

int HttpFront::bind(const std::string& host, int port) {
    if (port == 0) return server_->bind_to_any_port(host.c_str());
    return server_->bind_to_port(host.c_str(), port) ? port : -1;
}

bool HttpFront::serve(Service& service) {
    auto handler = [&service](const httplib::Request& req, httplib::Response& res) {
        ServiceResponse answer = service.handle(to_service_request(req));
        res.status = answer.status;
        for (auto& [name, value] : answer.headers) res.set_header(name.c_str(), value);
        res.set_header("Cache-Control", "no-store");
        if (answer.file) stream_file(res, answer.file, answer.content_type);
        else res.set_content(answer.body, answer.content_type.c_str());
    };
    server_->Get(".*", handler);
    server_->Post(".*", handler);
    server_->Put(".*", handler);
    server_->Patch(".*", handler);
    server_->Delete(".*", handler);
    server_->Options(".*", handler);
    return server_->listen_after_bind();
}

void HttpFront::stop() { server_->stop(); }
