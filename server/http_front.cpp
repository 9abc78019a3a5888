#include "http_front.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <vector>

#include "json.h"
#include "release_feed.h"

namespace {

using Clock = std::chrono::steady_clock;

// TLS 1.2 and 1.3 only; on 1.2 only ephemeral elliptic-curve key exchange, so a key stolen later
// cannot open recorded traffic, and only authenticated (AEAD) ciphers. Our order wins over the client's.
constexpr const char* kTlsPriorities =
    "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2:-KX-ALL:+ECDHE-ECDSA:+ECDHE-RSA:"
    "-CIPHER-ALL:+AES-256-GCM:+CHACHA20-POLY1305:+AES-128-GCM:-MAC-ALL:+AEAD:%SERVER_PRECEDENCE";
constexpr const char* kHsts = "max-age=63072000";
// A body over the limit but under this is read to its end and dropped before the 413: a client
// that sends its body before reading (most do) would otherwise meet a reset, not the message.
constexpr uint64_t kMaxDiscarded = 4 * Service::kMaxBody;

// What the front answers on its own still gets a message a person can act on.
const char* library_error_text(int status) {
    switch (status) {
    case 413: return "The request is larger than 1 MiB; no drive's statistics are that large.";
    case 414: return "The address is too long.";
    case 431: return "The request has too many header lines. Update the app, or check what sends it.";
    case 400: return "The request could not be read. Update the app, or check what sends it.";
    case 503: return "The service is stopping. Try again in a minute.";
    default: return "The service could not answer this request. Try again in a few minutes.";
    }
}

ServiceResponse error_response(int status) {
    ServiceResponse r;
    r.status = status;
    r.body = json::message(library_error_text(status));
    return r;
}

std::optional<std::string> canonical_ip(std::string_view text) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    std::string s(text);
    char out[INET6_ADDRSTRLEN];
    in_addr v4;
    in6_addr v6;
    if (inet_pton(AF_INET, s.c_str(), &v4) == 1) return inet_ntop(AF_INET, &v4, out, sizeof out);
    if (inet_pton(AF_INET6, s.c_str(), &v6) != 1) return std::nullopt;
    if (IN6_IS_ADDR_V4MAPPED(&v6)) {  // what a dual-stack socket shows an IPv4 client as
        std::memcpy(&v4, v6.s6_addr + 12, sizeof v4);
        return inet_ntop(AF_INET, &v4, out, sizeof out);
    }
    return inet_ntop(AF_INET6, &v6, out, sizeof out);
}

std::string peer_address(MHD_Connection* c) {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (!info || !info->client_addr) return "";
    char out[INET6_ADDRSTRLEN] = "";
    const sockaddr* a = info->client_addr;
    if (a->sa_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(a)->sin_addr, out, sizeof out);
    else if (a->sa_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(a)->sin6_addr, out, sizeof out);
    return canonical_ip(out).value_or(out);
}

std::string header(MHD_Connection* c, const char* name) {
    const char* v = MHD_lookup_connection_value(c, MHD_HEADER_KIND, name);
    return v ? v : "";
}

std::string read_pem(const std::string& path, const char* what) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        throw std::runtime_error(std::string("cannot read the TLS ") + what + " " + path + ": " + std::strerror(errno));
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && text.size() < 1024 * 1024) text.append(buf, n);
    std::fclose(f);
    return text;
}

// Every connection may hold a second descriptor while an archive streams to it, and the database,
// the release folder and the log need a few more; the rest of the open-file limit is for clients.
unsigned connection_limit(int configured) {
    if (configured > 0) return unsigned(configured);
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0) return 256;
    if (rl.rlim_cur < rl.rlim_max) {  // the soft limit is only a default; a server may use all it is given
        rlimit raised = rl;
        raised.rlim_cur = rl.rlim_max;
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) rl = raised;
    }
    rlim_t files = rl.rlim_cur == RLIM_INFINITY ? 1 << 20 : rl.rlim_cur;
    rlim_t reserved = 128;
    return unsigned(std::clamp<rlim_t>(files > reserved ? (files - reserved) / 2 : 0, 16, 1 << 19));
}

// Runs handlers off the polling threads: a password hash or a slow database stalls only the
// request that asked for it.
class WorkerPool {
public:
    void start(int threads) {
        for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { run(); });
    }
    // False once finish() has begun: the job will not run.
    bool submit(std::function<void()> job) {
        std::lock_guard lock(mutex_);
        if (closed_) return false;
        jobs_.push_back(std::move(job));
        ready_.notify_one();
        return true;
    }
    // Refuses new jobs, runs every one already taken, and joins the threads.
    void finish() {
        {
            std::lock_guard lock(mutex_);
            closed_ = true;
        }
        ready_.notify_all();
        for (auto& t : threads_) t.join();
        threads_.clear();
    }

private:
    void run() {
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock lock(mutex_);
                ready_.wait(lock, [this] { return closed_ || !jobs_.empty(); });
                if (jobs_.empty()) return;
                job = std::move(jobs_.front());
                jobs_.pop_front();
            }
            job();
        }
    }

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> jobs_;
    std::vector<std::thread> threads_;
    bool closed_ = false;
};

// Ends connections whose request has not arrived whole in time. The library only knows an idle
// timeout, which a client sending a byte now and then never reaches. The socket is shut down,
// not closed: the library then sees the end of the stream and closes it itself. It closes a
// socket only after notifying that the connection closed, which takes the same mutex, so a
// descriptor here is never one already reused for another file.
class Deadlines {
public:
    explicit Deadlines(Clock::duration limit) : limit_(limit) {}

    void opened(const MHD_Connection* c, int fd) {
        std::lock_guard lock(mutex_);
        watches_[c] = Watch{fd, Clock::now() + limit_};
    }
    // The request is whole; the time its answer takes is not the client's doing.
    void received(const MHD_Connection* c) { set(c, Clock::time_point::max()); }
    // The next request on this connection starts its own time.
    void answered(const MHD_Connection* c) { set(c, Clock::now() + limit_); }
    void closed(const MHD_Connection* c) {
        std::lock_guard lock(mutex_);
        watches_.erase(c);
    }

    void start() { thread_ = std::thread([this] { run(); }); }
    void stop() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        if (thread_.joinable()) thread_.join();
    }

private:
    struct Watch {
        int fd;
        Clock::time_point due;  // max while no request is being received
    };

    void set(const MHD_Connection* c, Clock::time_point due) {
        std::lock_guard lock(mutex_);
        auto it = watches_.find(c);  // never adds: a connection already closed stays forgotten
        if (it != watches_.end()) it->second.due = due;
    }

    void run() {
        auto tick =
            std::clamp<Clock::duration>(limit_ / 8, std::chrono::milliseconds(10), std::chrono::milliseconds(250));
        std::unique_lock lock(mutex_);
        while (!wake_.wait_for(lock, tick, [this] { return stopping_; })) {
            auto now = Clock::now();
            for (auto& [connection, watch] : watches_) {
                if (watch.due > now) continue;
                ::shutdown(watch.fd, SHUT_RDWR);
                watch.due = Clock::time_point::max();
            }
        }
    }

    Clock::duration limit_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::unordered_map<const MHD_Connection*, Watch> watches_;
    std::thread thread_;
    bool stopping_ = false;
};

// One request from its headers to its answer; MHD keeps it for us between calls.
struct Exchange {
    ServiceRequest request;
    std::optional<ServiceResponse> answer;  // set by a worker before the connection resumes
    uint64_t dropped = 0;                   // bytes of a body over the limit, read and not kept
    bool too_large = false;
};

MHD_Result keep_first(void* cls, MHD_ValueKind, const char* key, const char* value) {
    static_cast<std::map<std::string, std::string>*>(cls)->emplace(key, value ? value : "");
    return MHD_YES;
}

}  // namespace

struct HttpFront::Impl {
    explicit Impl(const FrontOptions& o) : options(o), tls(!o.tls_cert.empty()), deadlines(o.request_deadline) {}

    FrontOptions options;
    bool tls;
    std::string cert_pem, key_pem;
    std::string trusted_proxy;  // canonical text, or empty
    int listen_fd = -1;
    Service* service = nullptr;
    WorkerPool workers;
    Deadlines deadlines;

    std::mutex stop_mutex;
    std::condition_variable stop_wanted;
    bool stop_requested = false;

    std::mutex log_mutex;
    Clock::time_point log_window;
    int logged_in_window = 0;

    ~Impl() {
        if (listen_fd >= 0) ::close(listen_fd);
        explicit_bzero(key_pem.data(), key_pem.size());
    }

    MHD_Daemon* start_daemon(unsigned flags, bool listening);

    static MHD_Result on_access(void* cls, MHD_Connection* c, const char* url, const char* method, const char*,
                                const char* upload, size_t* upload_size, void** context) {
        Impl& f = *static_cast<Impl*>(cls);
        auto* x = static_cast<Exchange*>(*context);
        if (!x) {
            *context = x = new Exchange;
            return f.begin(c, *x, url, method);
        }
        if (*upload_size) return take_body(*x, upload, upload_size);
        if (x->answer) return f.queue(c, *x->answer);
        if (x->too_large) return f.queue(c, error_response(413));
        return f.hand_over(c, *x);
    }

    static void on_completed(void* cls, MHD_Connection* c, void** context, MHD_RequestTerminationCode) {
        delete static_cast<Exchange*>(*context);
        *context = nullptr;
        static_cast<Impl*>(cls)->deadlines.answered(c);
    }

    static void on_connection(void* cls, MHD_Connection* c, void**, MHD_ConnectionNotificationCode code) {
        Impl& f = *static_cast<Impl*>(cls);
        if (code == MHD_CONNECTION_NOTIFY_CLOSED) return f.deadlines.closed(c);
        if (const MHD_ConnectionInfo* info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CONNECTION_FD))
            f.deadlines.opened(c, info->connect_fd);
    }

    // A few lines a minute at most: a flood of broken clients must not become a flood of log.
    static void on_log(void* cls, const char* format, va_list args) {
        Impl& f = *static_cast<Impl*>(cls);
        std::lock_guard lock(f.log_mutex);
        auto now = Clock::now();
        if (now - f.log_window > std::chrono::minutes(1)) f.log_window = now, f.logged_in_window = 0;
        if (++f.logged_in_window > 10) return;
        std::fputs("qm-server: http: ", stderr);
        std::vfprintf(stderr, format, args);
        if (f.logged_in_window == 10) std::fputs("qm-server: http: (no more of these messages this minute)\n", stderr);
    }

    // The headers are in: refuse what is too large before any body is read.
    MHD_Result begin(MHD_Connection* c, Exchange& x, const char* url, const char* method) {
        if (MHD_get_connection_values(c, MHD_HEADER_KIND, nullptr, nullptr) > options.max_header_lines)
            return queue(c, error_response(431));
        std::string length = header(c, MHD_HTTP_HEADER_CONTENT_LENGTH);
        if (!length.empty()) {
            uint64_t n = 0;
            auto [end, ec] = std::from_chars(length.data(), length.data() + length.size(), n);
            if (ec != std::errc() || end != length.data() + length.size()) return queue(c, error_response(400));
            if (n > Service::kMaxBody) {
                // Far too large, or the client waits for our word before sending: answer now,
                // and the library closes the connection.
                if (n > kMaxDiscarded || !header(c, MHD_HTTP_HEADER_EXPECT).empty())
                    return queue(c, error_response(413));
                x.too_large = true;
            }
            // Not all of it: a client announcing 1 MiB and sending nothing must not hold 1 MiB.
            x.request.body.reserve(size_t(std::min<uint64_t>(n, 64 * 1024)));
        }
        ServiceRequest& r = x.request;
        r.method = std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0 ? "GET" : method;  // the library drops the body
        r.path = url;
        MHD_get_connection_values(c, MHD_GET_ARGUMENT_KIND, keep_first, &r.query);
        r.authorization = header(c, MHD_HTTP_HEADER_AUTHORIZATION);
        r.timestamp = header(c, "X-QM-Timestamp");
        r.signature = header(c, "X-QM-Signature");
        r.address = client_address(peer_address(c), header(c, "X-Real-IP"), trusted_proxy);
        return MHD_YES;
    }

    // The library cannot answer in the middle of a body: one over the limit is dropped as it
    // comes and answered 413 at its end, or its connection closed once it passes kMaxDiscarded.
    static MHD_Result take_body(Exchange& x, const char* data, size_t* size) {
        if (!x.too_large && x.request.body.size() + *size > Service::kMaxBody) {
            x.too_large = true;
            x.dropped = x.request.body.size();
            std::string().swap(x.request.body);
        }
        if (x.too_large) x.dropped += *size;
        else x.request.body.append(data, *size);
        *size = 0;
        return x.dropped > kMaxDiscarded ? MHD_NO : MHD_YES;
    }

    // The request is whole: a worker answers it while the connection waits, costing no thread.
    MHD_Result hand_over(MHD_Connection* c, Exchange& x) {
        deadlines.received(c);
        MHD_suspend_connection(c);
        bool taken = workers.submit([this, c, &x] {
            try {
                x.answer = service->handle(x.request);
            } catch (...) {  // out of memory: still answer, and above all resume
                x.answer = error_response(500);
            }
            MHD_resume_connection(c);
        });
        if (!taken) {
            x.answer = error_response(503);
            MHD_resume_connection(c);
        }
        return MHD_YES;
    }

    MHD_Result queue(MHD_Connection* c, const ServiceResponse& a) {
        MHD_Response* response = nullptr;
        if (a.file) {
            int fd = fcntl(a.file->fd(), F_DUPFD_CLOEXEC, 0);  // the library closes its copy when done
            if (fd >= 0 && !(response = MHD_create_response_from_fd_at_offset64(uint64_t(a.file->size()), fd, 0)))
                ::close(fd);
            if (!response) return queue(c, error_response(500));
        } else {
            response = MHD_create_response_from_buffer(a.body.size(), const_cast<char*>(a.body.data()),
                                                       MHD_RESPMEM_MUST_COPY);
            if (!response) return MHD_NO;
        }
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, a.content_type.c_str());
        for (auto& [name, value] : a.headers) MHD_add_response_header(response, name.c_str(), value.c_str());
        MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
        if (tls) MHD_add_response_header(response, MHD_HTTP_HEADER_STRICT_TRANSPORT_SECURITY, kHsts);
        MHD_Result queued = MHD_queue_response(c, unsigned(a.status), response);
        MHD_destroy_response(response);
        return queued;
    }
};

MHD_Daemon* HttpFront::Impl::start_daemon(unsigned flags, bool listening) {
    std::vector<MHD_OptionItem> items{
        {MHD_OPTION_EXTERNAL_LOGGER, intptr_t(&on_log), this},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, intptr_t(options.connection_memory), nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, intptr_t(options.idle_timeout.count()), nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, intptr_t(&on_completed), this},
        {MHD_OPTION_NOTIFY_CONNECTION, intptr_t(&on_connection), this},
    };
    if (listening) {
        // Behind a proxy every client shares its address: the proxy caps them instead.
        unsigned per_address = trusted_proxy.empty() ? unsigned(std::max(0, options.max_per_address)) : 0;
        unsigned pollers = options.polling_threads > 0 ? unsigned(options.polling_threads)
                                                       : std::clamp(std::thread::hardware_concurrency(), 1u, 4u);
        items.push_back({MHD_OPTION_LISTEN_SOCKET, intptr_t(listen_fd), nullptr});
        items.push_back({MHD_OPTION_CONNECTION_LIMIT, intptr_t(connection_limit(options.max_connections)), nullptr});
        items.push_back({MHD_OPTION_PER_IP_CONNECTION_LIMIT, intptr_t(per_address), nullptr});
        if (pollers > 1) items.push_back({MHD_OPTION_THREAD_POOL_SIZE, intptr_t(pollers), nullptr});
    }
    if (tls) {
        items.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, cert_pem.data()});
        items.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, key_pem.data()});
        items.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(kTlsPriorities)});
        flags |= MHD_USE_TLS;
    }
    items.push_back({MHD_OPTION_END, 0, nullptr});
    return MHD_start_daemon(flags | MHD_USE_ERROR_LOG, 0, nullptr, nullptr, &on_access, this, MHD_OPTION_ARRAY,
                            items.data(), MHD_OPTION_END);
}

bool is_loopback(const std::string& host) {
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

std::string client_address(const std::string& peer, const std::string& x_real_ip, const std::string& trusted_proxy) {
    std::string from = canonical_ip(peer).value_or(peer);
    if (trusted_proxy.empty() || from != canonical_ip(trusted_proxy).value_or(trusted_proxy)) return from;
    return canonical_ip(x_real_ip).value_or(from);
}

HttpFront::HttpFront(const FrontOptions& options) : impl_(std::make_unique<Impl>(options)) {
    Impl& f = *impl_;
    if (!options.trusted_proxy.empty()) {
        auto proxy = canonical_ip(options.trusted_proxy);
        if (!proxy) throw std::invalid_argument("the trusted proxy " + options.trusted_proxy + " is not an IP address");
        f.trusted_proxy = *proxy;
    }
    if (!f.tls) return;
    f.cert_pem = read_pem(options.tls_cert, "certificate");
    f.key_pem = read_pem(options.tls_key, "key");
    // Loading them into a daemon that listens nowhere is how to learn now, not at serve(), that they do not fit.
    MHD_Daemon* probe = f.start_daemon(MHD_USE_NO_LISTEN_SOCKET, false);
    if (!probe)
        throw std::runtime_error("cannot load the TLS certificate " + options.tls_cert + " and key " + options.tls_key +
                                 ": not a PEM certificate and its private key");
    MHD_stop_daemon(probe);
}

HttpFront::~HttpFront() = default;

bool HttpFront::tls() const { return impl_->tls; }

int HttpFront::bind(const std::string& host, int port) {
    Impl& f = *impl_;
    if (f.listen_fd >= 0) ::close(f.listen_fd), f.listen_fd = -1;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.empty() ? nullptr : host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
        return -1;
    for (addrinfo* a = found; a && f.listen_fd < 0; a = a->ai_next) {
        int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) continue;
        int yes = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        // The backlog is set here, where the socket is made: the library never calls listen() on it.
        if (::bind(fd, a->ai_addr, a->ai_addrlen) == 0 && ::listen(fd, std::max(16, f.options.listen_backlog)) == 0)
            f.listen_fd = fd;
        else
            ::close(fd);
    }
    freeaddrinfo(found);
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    if (f.listen_fd < 0 || getsockname(f.listen_fd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) return -1;
    return ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                             : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
}

bool HttpFront::serve(Service& service) {
    Impl& f = *impl_;
    if (f.listen_fd < 0) return false;
    f.service = &service;
    f.deadlines.start();
    f.workers.start(std::max(1, f.options.threads));
    MHD_Daemon* daemon =
        f.start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, true);
    if (daemon) {
        std::unique_lock lock(f.stop_mutex);
        f.stop_wanted.wait(lock, [&f] { return f.stop_requested; });
    }
    f.listen_fd = -1;  // the library's now, even when it failed to start
    if (daemon) {
        // No new connections; the listening socket comes back to us.
        MHD_socket listening = MHD_quiesce_daemon(daemon);
        if (listening != MHD_INVALID_SOCKET) ::close(listening);
    }
    // Every request already taken is answered and its connection resumed: the library refuses to
    // stop while a connection is suspended. Requests completed from now on are answered 503.
    f.workers.finish();
    if (daemon) MHD_stop_daemon(daemon);
    f.deadlines.stop();
    return daemon != nullptr;
}

void HttpFront::stop() {
    std::lock_guard lock(impl_->stop_mutex);
    impl_->stop_requested = true;
    impl_->stop_wanted.notify_all();
}
