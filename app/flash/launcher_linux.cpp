// The writer started through pkexec (the project's polkit action asks for an administrator's
// password and keeps the authorisation for a while), or directly when already root.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "launcher.h"

extern char** environ;

namespace {

constexpr int kElevatorDismissed = 126;  // pkexec: the dialog was dismissed
constexpr const char* kPkexec = "/usr/bin/pkexec";

pid_t spawn_with_output(const char* const argv[], int* read_end) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (pid < 0) close(fds[0]);
    *read_end = fds[0];
    return pid;
}

// Waits until the program prints something or ends. An end without a word is the elevating
// program giving up (prompt dismissed, rights refused), told apart by its exit status.
bool ended_silently(int fd) {
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, -1) < 0 && errno == EINTR) {
    }
    return !(p.revents & POLLIN);
}

int exit_status(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int qm_exec_through(const char* elevator, const char* tool, const char* arg1, const char* arg2, FILE** output) {
    if (!tool || !arg1 || !arg2 || !output) return kAuthDenied;
    *output = nullptr;
    const char* direct[] = {tool, arg1, arg2, nullptr};
    const char* elevated[] = {elevator, tool, arg1, arg2, nullptr};
    int fd = -1;
    pid_t pid = spawn_with_output(elevator ? elevated : direct, &fd);
    if (pid < 0) return kAuthDenied;
    if (elevator && ended_silently(fd)) {
        int code = exit_status(pid);
        if (code == kElevatorDismissed) return close(fd), kAuthCanceled;
        if (code != 0) return close(fd), kAuthDenied;
        pid = -1;  // already reaped; the empty stream says the rest
    }
    *output = fdopen(fd, "r");
    if (!*output) close(fd);
    if (pid > 0) std::thread([pid] { exit_status(pid); }).detach();  // reaped whenever it ends
    return *output ? 0 : kAuthDenied;
}

extern "C" int qm_authorized_exec(const char* tool, const char* arg1, const char* arg2, FILE** output) {
    if (geteuid() == 0) return qm_exec_through(nullptr, tool, arg1, arg2, output);
    if (access(kPkexec, X_OK) != 0) return kAuthDenied;
    return qm_exec_through(kPkexec, tool, arg1, arg2, output);
}

QString platformName() { return QStringLiteral("Linux"); }
