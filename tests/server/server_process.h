// A qm-server executable running as a process of its own on a free loopback port, stopped when
// this object goes, and by the kernel when the test process dies first (killed by a timeout, say).
// Between fork and exec the child makes only async-signal-safe calls: the tests are threaded.
#pragma once
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

class ServerProcess {
public:
    // Runs `qm-server args... --listen 127.0.0.1:0` and waits for the port it prints.
    ServerProcess(const std::string& program, std::vector<std::string> args) {
        args.insert(args.begin(), program);
        args.insert(args.end(), {"--listen", "127.0.0.1:0"});
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        int out[2];
        if (pipe(out) != 0) return;
        pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (getppid() == parent) execv(program.c_str(), argv.data());
            _exit(127);
        }
        close(out[1]);
        read_port(out[0]);
        close(out[0]);
    }
    ~ServerProcess() { stop(); }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    // 0 when the service did not start.
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

    // Seconds of CPU the process has used so far (user and system).
    double cpu_seconds() const { return process_cpu_seconds(pid_); }

    // Exit status after SIGTERM, -1 when it did not exit cleanly.
    int stop() {
        if (pid_ <= 0) return -1;
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    static double process_cpu_seconds(pid_t pid) {
        std::istringstream fields = stat_fields(pid);
        std::string skip;
        for (int i = 0; i < 11; ++i) fields >> skip;  // state .. cmajflt
        double user = 0, system = 0;
        fields >> user >> system;
        return (user + system) / double(sysconf(_SC_CLK_TCK));
    }

    // 0 when there is no such process.
    static pid_t parent_of(pid_t pid) {
        std::istringstream fields = stat_fields(pid);
        std::string state;
        pid_t parent = 0;
        fields >> state >> parent;
        return parent;
    }

private:
    // /proc/PID/stat from the field after the command name on (the name may hold spaces).
    static std::istringstream stat_fields(pid_t pid) {
        std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
        std::string stat((std::istreambuf_iterator<char>(in)), {});
        size_t close_paren = stat.rfind(')');
        return std::istringstream(close_paren == std::string::npos ? "" : stat.substr(close_paren + 2));
    }

    // The service prints "qm-server: listening on http://127.0.0.1:PORT" once it can be reached.
    void read_port(int fd) {
        std::string seen;
        char c;
        while (pid_ > 0 && read(fd, &c, 1) == 1 && c != '\n') seen += c;
        size_t colon = seen.rfind(':');
        if (seen.find("listening on") != std::string::npos && colon != std::string::npos)
            port_ = std::atoi(seen.c_str() + colon + 1);
    }

    pid_t pid_ = -1;
    int port_ = 0;
};
