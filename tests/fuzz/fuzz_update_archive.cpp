// A downloaded release archive as arbitrary bytes, unpacked as the updater does. Beyond not
// crashing: nothing appears beside the scratch folder, everything inside it is a plain file,
// folder or link without setuid bits, every link resolves inside it, and it can be removed.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "archive_unpack.h"
#include "folder_swap.h"
#include "fuzz_support.h"

namespace {

namespace fs = std::filesystem;

// One folder per process; each input is unpacked into <base>/run/scratch.
const fs::path& base() {
    static const fs::path path = [] {
        static const std::string made = fuzz_folder("unpack");  // empty between inputs, so it goes at exit
        std::atexit([] { rmdir(made.c_str()); });
        return fs::path(made);
    }();
    return path;
}

bool holdsOnly(const fs::path& folder, const char* name) {
    auto it = fs::directory_iterator(folder);
    return it != fs::directory_iterator() && it->path().filename() == name && ++it == fs::directory_iterator();
}

bool inside(const fs::path& path, const fs::path& root) {
    auto [end, unused] = std::mismatch(root.begin(), root.end(), path.begin(), path.end());
    return end == root.end();
}

void checkTree(const fs::path& scratch) {
    const fs::path root = fs::canonical(scratch);
    for (const auto& e : fs::recursive_directory_iterator(scratch)) {
        struct stat st;
        check(lstat(e.path().c_str(), &st) == 0);
        check(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode));
        check((st.st_mode & 07000) == 0);
        if (!S_ISLNK(st.st_mode)) continue;
        std::error_code ec;
        const fs::path resolved = fs::weakly_canonical(e.path(), ec);
        // A loop of links resolves to nothing at all, which is not outside either.
        check(ec || inside(resolved, root));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fs::path run = base() / "run", scratch = run / "scratch";
    check(fs::create_directory(run) && fs::create_directory(scratch));
    const int fd = memfd_create("archive", MFD_CLOEXEC);
    check(fd >= 0 && write(fd, data, size) == ssize_t(size));
    unpackArchive(fd, scratch.string(), {4 << 20, 1000});
    close(fd);
    check(holdsOnly(base(), "run") && holdsOnly(run, "scratch"));
    checkTree(scratch);
    check(removeTree(run.string()) && !fs::exists(fs::symlink_status(run)));
    return 0;
}
