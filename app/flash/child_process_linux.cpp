#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "child_process.h"

extern char** environ;

pid_t ChildProcess::spawnReadingOutput(const char* const argv[], int* readEnd, bool quiet) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (quiet) {
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (pid < 0) close(fds[0]);
    *readEnd = fds[0];
    return pid;
}

int ChildProcess::exitStatus(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
