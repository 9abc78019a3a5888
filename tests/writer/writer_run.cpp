#include "writer_run.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Starts `argv` with its stdout on the returned pipe (stderr discarded).
pid_t spawn(const std::vector<std::string>& argv, int* stdout_fd, const std::vector<std::string>& env = {}) {
    int pipefd[2];
    if (pipe(pipefd) != 0) throw std::runtime_error("pipe");
    pid_t pid = fork();
    if (pid == 0) {
        int devnull = open("/dev/null", O_WRONLY);
        dup2(pipefd[1], STDOUT_FILENO);
        dup2(devnull, STDERR_FILENO);
        close(pipefd[0]);
        for (const auto& e : env) putenv(const_cast<char*>(e.c_str()));
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(pipefd[1]);
    *stdout_fd = pipefd[0];
    return pid;
}

std::vector<std::string> writer_argv(const std::vector<std::string>& args, const char* writer = QM_WRITER_PATH) {
    std::vector<std::string> argv{writer};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

}  // namespace

int run_command(const std::vector<std::string>& argv, std::string* out, const std::vector<std::string>& env) {
    int fd = -1;
    pid_t pid = spawn(argv, &fd, env);
    std::string collected;
    for (char buf[65536]; ssize_t n = read(fd, buf, sizeof buf);) {
        if (n < 0) break;
        collected.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    int status = 0;
    waitpid(pid, &status, 0);
    if (out) *out = std::move(collected);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

WriterRun run_writer(const std::vector<std::string>& args, const std::vector<std::string>& env, const char* writer) {
    std::string out;
    WriterRun run;
    run.exit_code = run_command(writer_argv(args, writer), &out, env);
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) run.lines.push_back(line);
    return run;
}

std::string WriterRun::err_line() const {
    for (const auto& l : lines)
        if (l.rfind("ERR ", 0) == 0) return l;
    return "";
}

std::string gunzip(const std::string& gz_path) {
    std::string out;
    if (run_command({"gzip", "-dc", gz_path}, &out) != 0) throw std::runtime_error("gzip -dc " + gz_path);
    return out;
}

std::string read_prefix(const std::string& path, size_t bytes) {
    std::ifstream f(path, std::ios::binary);
    std::string data(bytes, '\0');
    f.read(data.data(), static_cast<std::streamsize>(bytes));
    data.resize(static_cast<size_t>(f.gcount()));
    return data;
}

void fill_file(const std::string& path, size_t bytes, char value) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    std::string block(1 << 20, value);
    for (size_t done = 0; done < bytes; done += block.size())
        f.write(block.data(), static_cast<std::streamsize>(std::min(block.size(), bytes - done)));
}

LoopDevice::LoopDevice(const std::string& backing_file, const std::vector<std::string>& losetup_flags) {
    std::vector<std::string> argv{"losetup", "--find", "--show", "--direct-io=on"};
    argv.insert(argv.end(), losetup_flags.begin(), losetup_flags.end());
    argv.push_back(backing_file);
    std::string out;
    if (run_command(argv, &out) != 0) throw std::runtime_error("losetup failed for " + backing_file);
    path_ = out.substr(0, out.find('\n'));
}

LoopDevice::~LoopDevice() { run_command({"losetup", "-d", path_}); }

MediaFolder::MediaFolder() {
    made_parent_ = mkdir("/run/media", 0755) == 0;
    std::string tmpl = "/run/media/qm-test-XXXXXX";
    if (!mkdtemp(tmpl.data())) throw std::runtime_error("cannot make a folder in /run/media");
    path_ = tmpl;
}

MediaFolder::~MediaFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
    if (made_parent_) rmdir("/run/media");
}

ByIdLink::ByIdLink(const std::string& name, const std::string& device_name) {
    for (const char* dir : {"/dev/disk", "/dev/disk/by-id"})
        if (mkdir(dir, 0755) == 0) made_.insert(made_.begin(), dir);
    path_ = "/dev/disk/by-id/" + name;
    if (symlink(("../../" + device_name).c_str(), path_.c_str()) != 0) throw std::runtime_error("symlink " + path_);
}

ByIdLink::~ByIdLink() {
    unlink(path_.c_str());
    for (const auto& dir : made_) rmdir(dir.c_str());
}

TestMount::TestMount(const std::string& device, const std::string& mount_point) : mount_point_(mount_point) {
    ok_ = run_command({"mkfs.ext4", "-q", "-F", device}) == 0 && mkdir(mount_point.c_str(), 0700) == 0 &&
          mount(device.c_str(), mount_point.c_str(), "ext4", 0, nullptr) == 0;
}

TestMount::~TestMount() {
    if (is_mounted(mount_point_) && umount2(mount_point_.c_str(), 0) != 0) umount2(mount_point_.c_str(), MNT_DETACH);
}

bool TestMount::is_mounted(const std::string& mount_point) {
    std::ifstream f("/proc/self/mountinfo");
    for (std::string line; std::getline(f, line);)
        if (line.find(" " + mount_point + " ") != std::string::npos) return true;
    return false;
}

uint64_t kill_writer_midway(const std::vector<std::string>& args, uint64_t bytes) {
    int fd = -1;
    pid_t pid = spawn(writer_argv(args), &fd);
    FILE* out = fdopen(fd, "r");
    uint64_t killed_at_total = 0;
    char line[256];
    while (!killed_at_total && std::fgets(line, sizeof line, out)) {
        unsigned long long done = 0, total = 0;
        if (std::sscanf(line, "P %llu %llu", &done, &total) == 2 && done >= bytes && done < total) {
            kill(pid, SIGKILL);
            killed_at_total = total;
        }
    }
    std::fclose(out);
    waitpid(pid, nullptr, 0);
    return killed_at_total;
}
