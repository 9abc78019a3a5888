// Programs the server's and the application's tests start, qm-server among them. posix_spawn rather
// than fork: forking a multi-threaded test process is what ThreadSanitizer cannot follow. What runs
// under setpriv --pdeathsig gets SIGTERM from the kernel when the test process dies first (killed by
// a timeout, say), so no test leaves a program behind.
#pragma once
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

extern char** environ;

// Starts args[0] with the given descriptors as its standard input, output and error (-1: this
// process's own). -1 when it did not start.
inline pid_t spawn_process(std::vector<std::string> args, int in = -1, int out = -1, int err = -1,
                           bool dies_with_us = true) {
    if (dies_with_us) args.insert(args.begin(), {"/usr/bin/setpriv", "--pdeathsig", "TERM", "--"});
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const int from[] = {in, out, err};
    for (int to = 0; to < 3; ++to)
        if (from[to] >= 0) posix_spawn_file_actions_adddup2(&actions, from[to], to);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// The exit status of a child, -1 when it did not exit by itself.
inline int exit_status(pid_t pid) {
    int status = 0;
    if (pid <= 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// `qm-server args... --listen 127.0.0.1:0` on the port the system picks, stopped when this goes.
class ServerProcess {
public:
    ServerProcess(const std::string& program, std::vector<std::string> args) {
        args.insert(args.begin(), program);
        args.insert(args.end(), {"--listen", "127.0.0.1:0"});
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) return;
        pid_ = spawn_process(args, -1, out[1]);
        close(out[1]);
        read_port(out[0]);
        close(out[0]);
    }
    ~ServerProcess() {
        if (pid_ > 0 && kill(pid_, SIGTERM) == 0) exit_status(pid_);
    }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    // 0 when the service did not start.
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    // The service prints "qm-server: listening on http://127.0.0.1:PORT" once it can be reached.
    void read_port(int fd) {
        std::string seen;
        char c;
        while (pid_ > 0 && read(fd, &c, 1) == 1 && c != '\n') seen += c;
        if (seen.find("listening on") != std::string::npos) port_ = std::atoi(seen.c_str() + seen.rfind(':') + 1);
    }

    pid_t pid_ = -1;
    int port_ = 0;
};
