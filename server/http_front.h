// Serves a Service over HTTP or HTTPS. A few polling threads carry every connection, so a client
// that sends slowly costs a socket and a little memory, never a thread; complete requests are
// answered on a pool of worker threads. Each request must arrive whole within a deadline, headers
// and bodies are bounded before they are read, and every error the front answers is JSON.
#pragma once
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "service.h"

struct FrontOptions {
    int threads = 16;  // workers running Service::handle; waiting clients take none of them
    std::string tls_cert, tls_key;  // PEM files, both or neither
    // A reverse proxy's address: requests from it name their client in X-Real-IP, and the cap per
    // address is left to the proxy. Empty: every peer is the client itself.
    std::string trusted_proxy;
    int max_per_address = 32;       // open connections from one address; 0 = no cap
    int max_connections = 0;        // 0: what the open-file limit allows, less room for files
    int polling_threads = 0;        // 0: one per core, at most 4
    size_t connection_memory = 64 * 1024;  // per connection; longer headers are refused
    int max_header_lines = 100;
    int listen_backlog = 4096;
    std::chrono::seconds idle_timeout{10};
    // From when a connection opens or its previous answer was sent, the next request must have
    // arrived whole within this, however the client paces it.
    std::chrono::milliseconds request_deadline{20000};
};

class HttpFront {
public:
    // Throws std::runtime_error when the certificate or key cannot be read or loaded, and
    // std::invalid_argument when trusted_proxy is not an IP address.
    explicit HttpFront(const FrontOptions& options);
    ~HttpFront();
    HttpFront(const HttpFront&) = delete;
    HttpFront& operator=(const HttpFront&) = delete;

    // The port bound (port 0 picks a free one), or -1 when the address cannot be bound.
    int bind(const std::string& host, int port);
    // Serves service until stop(); false when serving could not start. Work in progress when
    // stop() is called is finished before this returns.
    bool serve(Service& service);
    void stop();
    bool tls() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Whether host names this machine only: the service refuses anything else without TLS.
bool is_loopback(const std::string& host);

// The address requests count against: the peer's, or X-Real-IP's when the peer is the trusted
// proxy and the header holds an IP address. Addresses come back in their canonical text form.
std::string client_address(const std::string& peer, const std::string& x_real_ip, const std::string& trusted_proxy);
