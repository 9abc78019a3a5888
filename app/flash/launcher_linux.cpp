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
constexpr int kElevatorRefused = 127;    // pkexec: not authorised, or the tool could not be run
constexpr const char* kPkexec = "/usr/bin/pkexec";

// pkexec passes the tool's exit status on, so its own 126 and 127 are told apart from the
// tool's only by the tool having said nothing. Any other end is the tool's, and its output
// tells how it went.
int launch_status(int exitStatus, bool elevated, bool toolSpoke) {
    if (!elevated || toolSpoke) return 0;
    if (exitStatus == kElevatorDismissed) return kAuthCanceled;
    if (exitStatus == kElevatorRefused) return kAuthDenied;
    return 0;
}

// Waits until the program prints something or ends.
bool ended_silently(int fd) {
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, -1) < 0 && errno == EINTR) {
    }
    return !(p.revents & POLLIN);
}

}  // namespace

ElevatedRun qm_exec_through(const char* elevator, const char* tool, const char* arg1, const char* arg2) {
    ElevatedRun run;
    if (!tool || !arg1 || !arg2) return run;
    const char* direct[] = {tool, arg1, arg2, nullptr};
    const char* elevated[] = {elevator, tool, arg1, arg2, nullptr};
    int fd = -1;
    pid_t pid = ChildProcess::spawnReadingOutput(elevator ? elevated : direct, &fd, false);
    if (pid < 0) return run;
    run.output = fdopen(fd, "r");
    if (!run.output) {
        close(fd);
        std::thread([pid] { ChildProcess::exitStatus(pid); }).detach();  // reaped whenever it ends
        return run;
    }
    run.status = 0;
    run.ended = [pid, elevated = elevator != nullptr](bool toolSpoke) {
        return launch_status(ChildProcess::exitStatus(pid), elevated, toolSpoke);
    };
    return run;
}

ElevatedRun qm_authorized_run(const char* tool, const char* arg1, const char* arg2) {
    if (geteuid() == 0) return qm_exec_through(nullptr, tool, arg1, arg2);
    if (access(kPkexec, X_OK) != 0) return {};
    return qm_exec_through(kPkexec, tool, arg1, arg2);
}

extern "C" int qm_authorized_exec(const char* tool, const char* arg1, const char* arg2, FILE** output) {
    if (!output) return kAuthDenied;
    *output = nullptr;
    ElevatedRun run = qm_authorized_run(tool, arg1, arg2);
    if (run.status != 0) return run.status;
    // No exit status reaches this caller, so a refusal is told now: pkexec gives up without a word.
    if (ended_silently(fileno(run.output))) {
        int status = run.ended(false);
        if (status != 0) return fclose(run.output), status;
    } else {
        std::thread([ended = run.ended] { ended(true); }).detach();  // reaped whenever it ends
    }
    *output = run.output;
    return 0;
}

QString platformName() { return QStringLiteral("Linux"); }

QString unmountAdvice() { return QStringLiteral("Eject the drive in the file manager and try again."); }
