// qm-writer [--allow-regular-file] [--inflater=zlib|isal] IMAGE.gz DEVICE
// Runs privileged on behalf of the app; reports on stdout in the line protocol of protocol.h.
#include <csignal>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <vector>

#include "image_size.h"
#include "protocol.h"
#include "qm_core.h"
#include "target.h"
#include "verify.h"
#include "write_image.h"
#include "writer_error.h"

namespace {

// Measured on a realistic image (bench/bench_writer.sh): igzip decodes faster than zlib.
constexpr InflateEngine kDefaultEngine = InflateEngine::Isal;

struct Arguments {
    std::string image;
    std::string device;
    bool allow_regular_file = false;  // tests only; the app never passes it
    InflateEngine engine = kDefaultEngine;
};

Arguments parse_arguments(int argc, char** argv) {
    Arguments args;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (positional.empty() && a == "--allow-regular-file") args.allow_regular_file = true;
        else if (positional.empty() && a.rfind("--inflater=", 0) == 0) {
            auto engine = parse_engine(a.substr(11));
            if (!engine) throw WriterError("unknown inflater " + a.substr(11) + " (zlib or isal)");
            args.engine = *engine;
        } else positional.push_back(a);
    }
    if (positional.size() != 2)
        throw WriterError("usage: qm-writer [--allow-regular-file] [--inflater=zlib|isal] IMAGE.gz DEVICE");
    args.image = positional[0];
    args.device = positional[1];
    return args;
}

FileDescriptor open_image(const std::string& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) throw WriterError("cannot open the image " + path + ": " + std::strerror(errno));
    posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return fd;
}

void run(const Arguments& args) {
    Target target = inspect_target(args.device, args.allow_regular_file);
    refuse_smaller_than(target, smallest_possible_size(args.image));
    ImageSize image = measure_image(args.image, args.engine);
    refuse_smaller_than(target, image.uncompressed);
    // Held open from here on, so the image cannot vanish with an unmount.
    FileDescriptor image_fd = open_image(args.image);
    refuse_image_on_target(target, image_fd.get());
    unmount_partitions(target);
    OpenTarget out = open_for_writing(target);

    ProgressLine progress('P', image.uncompressed);
    progress.start();
    auto inflater = make_inflater(args.engine, image_fd.get());
    WrittenImage written = write_image(target, out, *inflater, image.uncompressed, progress);
    out = OpenTarget{};  // closed before the read-back so nothing is left in flight
    verify_written(target, written.bytes, written.sha256);
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);  // an app that stops listening must not kill a write midway
    sha256_select(QM_SHA256_AUTO);
    try {
        run(parse_arguments(argc, argv));
    } catch (const std::exception& e) {
        emit_error(e.what());
        return 1;
    }
    emit_done();
    return 0;
}
