// The writer started through pkexec (the project's polkit action asks for an administrator's
// password and keeps the authorisation for a while), or directly when already root.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "child_process.h"
#include "launcher.h"

namespace {

constexpr int kElevatorDismissed = 126;  // pkexec: the dialog was dismissed
constexpr const char* kPkexec = "/usr/bin/pkexec";

// Waits until the program prints something or ends. An end without a word is the elevating
// program giving up (prompt dismissed, rights refused), told apart by its exit status.
bool ended_silently(int fd) {
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, -1) < 0 && errno == EINTR) {
    }
    return !(p.revents & POLLIN);
}

}  // namespace

int qm_exec_through(const char* elevator, const char* tool, const char* arg1, const char* arg2, FILE** output) {
    if (!tool || !arg1 || !arg2 || !output) return kAuthDenied;
    *output = nullptr;
    const char* direct[] = {tool, arg1, arg2, nullptr};
    const char* elevated[] = {elevator, tool, arg1, arg2, nullptr};
    int fd = -1;
    pid_t pid = ChildProcess::spawnReadingOutput(elevator ? elevated : direct, &fd, false);
    if (pid < 0) return kAuthDenied;
    if (elevator && ended_silently(fd)) {
        int code = ChildProcess::exitStatus(pid);
        if (code == kElevatorDismissed) return close(fd), kAuthCanceled;
        if (code != 0) return close(fd), kAuthDenied;
        pid = -1;  // already reaped; the empty stream says the rest
    }
    *output = fdopen(fd, "r");
    if (!*output) close(fd);
    if (pid > 0) std::thread([pid] { ChildProcess::exitStatus(pid); }).detach();  // reaped whenever it ends
    return *output ? 0 : kAuthDenied;
}

extern "C" int qm_authorized_exec(const char* tool, const char* arg1, const char* arg2, FILE** output) {
    if (geteuid() == 0) return qm_exec_through(nullptr, tool, arg1, arg2, output);
    if (access(kPkexec, X_OK) != 0) return kAuthDenied;
    return qm_exec_through(kPkexec, tool, arg1, arg2, output);
}

QString platformName() { return QStringLiteral("Linux"); }
