// The HTTP front against clients no library would be: slow senders, header floods, many
// connections from one address, proxies naming clients, and old or weak TLS.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "service_fixture.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A TCP connection to the front from a chosen loopback address (all of 127/8 is this machine).
class RawClient {
public:
    RawClient(int port, const std::string& from) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        inet_pton(AF_INET, from.c_str(), &a.sin_addr);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0) << from;
        a.sin_port = htons(uint16_t(port));
        inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
        EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    }
    ~RawClient() { close(fd_); }
    bool send(std::string_view data) {
        return ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL) == ssize_t(data.size());
    }
    bool readable(int ms = 0) {
        pollfd p{fd_, POLLIN, 0};
        return poll(&p, 1, ms) == 1;
    }
    // The server closed or reset the connection (an answer still unread does not count).
    bool ended() {
        char c;
        return readable() && recv(fd_, &c, 1, MSG_DONTWAIT | MSG_PEEK) <= 0;
    }
    // One answer: what arrives until its body is complete, the server closes, or it is quiet for `quiet`.
    std::string answer(std::chrono::milliseconds quiet = 3s) {
        std::string out;
        char buf[4096];
        ssize_t n;
        while (!complete(out) && readable(int(quiet.count())) && (n = recv(fd_, buf, sizeof buf, 0)) > 0)
            out.append(buf, size_t(n));
        return out;
    }

private:
    static bool complete(const std::string& answer) {
        size_t head = answer.find("\r\n\r\n"), length = answer.find("Content-Length: ");
        return head != std::string::npos && length < head &&
               answer.size() >= head + 4 + std::strtoul(answer.c_str() + length + 16, nullptr, 10);
    }

    int fd_;
};

int status_of(const std::string& answer) {
    return answer.rfind("HTTP/1.1 ", 0) == 0 ? std::atoi(answer.c_str() + 9) : 0;
}

const std::string kMe = "GET /api/v1/me HTTP/1.1\r\nHost: 127.0.0.1\r\n";

class Front : public ServiceFixture {
protected:
    void SetUp() override {}  // each test starts the service with the options it is about
};

TEST_F(Front, SlowClientsNeitherHoldUpOthersNorOutstayTheRequestDeadline) {
    FrontOptions options;
    options.request_deadline = 2s;
    start(false, options);
    std::vector<std::unique_ptr<RawClient>> slow;  // 200, more than the old front had threads
    for (int i = 0; i < 200; ++i)
        slow.push_back(std::make_unique<RawClient>(port_, "127.0.0." + std::to_string(2 + i % 7)));
    auto begun = Clock::now();
    std::atomic<bool> done{false};
    std::atomic<int> ended{0};
    std::atomic<int64_t> first_end_ms{-1};
    const std::string dribble = kMe + "X-Slow: " + std::string(200, 'a');
    std::thread dribbler([&] {
        std::vector<bool> gone(slow.size());
        for (size_t byte = 0; !done && ended < int(slow.size()); ++byte, std::this_thread::sleep_for(500ms))
            for (size_t i = 0; i < slow.size(); ++i) {
                if (gone[i] || (!slow[i]->ended() && slow[i]->send(dribble.substr(byte % dribble.size(), 1)))) continue;
                gone[i] = true;
                ++ended;
                int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun).count();
                int64_t none = -1;
                first_end_ms.compare_exchange_strong(none, ms);
            }
    });
    std::this_thread::sleep_for(1s);
    auto asked = Clock::now();
    EXPECT_EQ(get("/api/v1/me").status, 401);
    EXPECT_LT(Clock::now() - asked, 2s) << "200 slow clients held up a normal request";
    while (ended < int(slow.size()) && Clock::now() - begun < 6s) std::this_thread::sleep_for(50ms);
    done = true;
    dribbler.join();
    EXPECT_EQ(ended, int(slow.size())) << "slow clients still connected 6 s after a 2 s deadline";
    EXPECT_GE(first_end_ms, 1500) << "a slow client was cut off before its deadline";
}

TEST_F(Front, OversizedRequestsAreRefusedBeforeTheyAreRead) {
    start();
    std::string many_lines = kMe;
    for (int i = 0; i < 150; ++i) many_lines += "X-Line-" + std::to_string(i) + ": 1\r\n";
    const std::string login_head = "POST /api/v1/auth/login HTTP/1.1\r\nHost: x\r\n";
    struct Case {
        const char* what;
        std::string start, repeated;
        int status;  // 0: any 4xx, or the connection closed without an answer
    } cases[] = {
        {"more header lines than allowed", many_lines + "\r\n", "", 431},
        {"header lines without end", kMe, many_lines.substr(kMe.size()), 0},
        {"one endless header line", kMe + "X-Long: ", std::string(4096, 'a'), 0},
        {"a body announced as far over 1 MiB", login_head + "Content-Length: 99000000\r\n\r\n", "", 413},
        {"a body over 1 MiB waiting for 100 Continue",
         login_head + "Expect: 100-continue\r\nContent-Length: 2000000\r\n\r\n", "", 413},
    };
    for (const Case& c : cases) {
        RawClient client(port_, "127.0.0.1");
        size_t sent = c.start.size();
        bool open = client.send(c.start);
        while (open && !c.repeated.empty() && sent < 1024 * 1024 && !client.readable(10)) {
            open = client.send(c.repeated);
            sent += c.repeated.size();
        }
        EXPECT_LT(sent, 1024u * 1024) << c.what << ": still reading after 1 MiB";
        std::string answer = client.answer();
        if (c.status) {
            EXPECT_EQ(status_of(answer), c.status) << c.what << ": " << answer;
            EXPECT_NE(answer.find("{\"message\":"), std::string::npos) << c.what << ": " << answer;
        } else {
            EXPECT_TRUE(answer.empty() || status_of(answer) / 100 == 4) << c.what << ": " << answer;
        }
    }
    EXPECT_EQ(get("/api/v1/me").status, 401);
}

class FrontCap : public Front, public ::testing::WithParamInterface<const char*> {};

TEST_P(FrontCap, CapsConnectionsPerAddressUnlessBehindATrustedProxy) {
    std::string proxy = GetParam();
    FrontOptions options;
    options.max_per_address = 4;
    options.trusted_proxy = proxy;
    start(false, options);
    std::vector<std::unique_ptr<RawClient>> held;
    for (int i = 0; i < 4; ++i) {  // answered, so accepted, and kept alive
        held.push_back(std::make_unique<RawClient>(port_, "127.0.0.3"));
        held.back()->send(kMe + "\r\n");
        EXPECT_EQ(status_of(held.back()->answer(500ms)), 401);
    }
    RawClient one_more(port_, "127.0.0.3"), elsewhere(port_, "127.0.0.4");
    one_more.send(kMe + "\r\n");
    elsewhere.send(kMe + "\r\n");
    EXPECT_EQ(status_of(one_more.answer(1s)), proxy.empty() ? 0 : 401);
    EXPECT_EQ(status_of(elsewhere.answer(1s)), 401);
}

INSTANTIATE_TEST_SUITE_P(Proxy, FrontCap, ::testing::Values("", "127.0.0.3"));

TEST(ClientAddress, IsThePeerUnlessTheTrustedProxyNamesAValidOne) {
    struct Case {
        const char *peer, *x_real_ip, *proxy, *expected;
    } cases[] = {
        {"192.0.2.7", "198.51.100.1", "", "192.0.2.7"},
        {"192.0.2.7", "198.51.100.1", "192.0.2.8", "192.0.2.7"},
        {"192.0.2.7", "198.51.100.1", "192.0.2.7", "198.51.100.1"},
        {"192.0.2.7", " 2001:DB8:0::5 ", "192.0.2.7", "2001:db8::5"},
        {"192.0.2.7", "198.51.100.1, 10.0.0.1", "192.0.2.7", "192.0.2.7"},
        {"192.0.2.7", "", "192.0.2.7", "192.0.2.7"},
        {"::1", "198.51.100.1", "0:0::1", "198.51.100.1"},
        {"::ffff:192.0.2.7", "", "", "192.0.2.7"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(client_address(c.peer, c.x_real_ip, c.proxy), c.expected)
            << c.peer << " / " << c.x_real_ip << " / " << c.proxy;
}

class FrontTls : public ServiceFixture {
protected:
    void SetUp() override { start(true); }
};

TEST_F(FrontTls, AcceptsOnlyTls12WithForwardSecrecyAnd13AndAsksForHttpsOnly) {
    struct Case {
        const char* client;
        bool accepted;
    } cases[] = {
        {"-tls1_1 -cipher DEFAULT:@SECLEVEL=0", false},
        {"-tls1_2 -cipher AES128-GCM-SHA256", false},
        {"-tls1_2 -cipher ECDHE-RSA-AES128-SHA", false},
        {"-tls1_2 -cipher ECDHE-RSA-AES128-GCM-SHA256", true},
        {"-tls1_3", true},
    };
    const std::string s_client = "printf '" + kMe + "Connection: close\\r\\n\\r\\n' | timeout 10 openssl s_client "
                                 "-quiet -connect 127.0.0.1:" + std::to_string(port_) + " ";
    for (const Case& c : cases) {
        std::string out = output_of(s_client + c.client + " 2>/dev/null");
        EXPECT_EQ(status_of(out), c.accepted ? 401 : 0) << c.client << "\n" << out;
        if (c.accepted) {
            EXPECT_NE(out.find("Strict-Transport-Security: max-age=63072000"), std::string::npos) << out;
        }
    }
    // The same service, to a client that checks the certificate; plain HTTP on this port is no request.
    EXPECT_EQ(get("/api/v1/me", sign_in("owner@example.org")).status, 200);
    RawClient plain(port_, "127.0.0.1");
    plain.send(kMe + "\r\n");
    int status = status_of(plain.answer(2s));
    EXPECT_TRUE(status == 0 || status == 400) << "plain HTTP was answered on the TLS port: " << status;
}

}  // namespace
