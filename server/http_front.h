// Serves a Service over HTTP or HTTPS with cpp-httplib: one thread per open connection from a
// fixed pool, bodies bounded before they are read, every error answered in JSON.
#pragma once
#include <memory>
#include <string>

#include "service.h"

namespace httplib {
class Server;
}

struct FrontOptions {
    int threads = 128;  // enough that 64 busy keep-alive connections never wait for a thread
    std::string tls_cert, tls_key;  // both or neither
};

class HttpFront {
public:
    // Throws std::runtime_error when the certificate or key cannot be loaded.
    explicit HttpFront(const FrontOptions& options);
    ~HttpFront();

    // The port bound (port 0 picks a free one), or -1 when the address cannot be bound.
    int bind(const std::string& host, int port);
    // Serves service until stop(); false when serving failed.
    bool serve(Service& service);
    void stop();
    bool tls() const { return tls_; }

private:
    std::unique_ptr<httplib::Server> server_;
    bool tls_;
};

// Whether host names this machine only: the service refuses anything else without TLS.
bool is_loopback(const std::string& host);
