#include "writer_main.h"

#include <csignal>
#include <string>
#include <vector>

#include "capacity_check.h"
#include "image_file.h"
#include "image_size.h"
#include "protocol.h"
#include "verify.h"
#include "write_image.h"
#include "writer_error.h"

namespace {

// Measured on a realistic image (bench/bench_writer.sh): igzip decodes faster than zlib.
constexpr InflateEngine kDefaultEngine = InflateEngine::Isal;

struct Arguments {
    std::string image;
    std::string device;
    InflateEngine engine = kDefaultEngine;
};

// The installed writer runs as root for whoever may start it: it takes exactly the image and
// the disk, and no switch at all. The test build may also choose the inflater.
Arguments parse_arguments(int argc, char** argv, TargetKinds kinds) {
    const bool test_build = kinds == TargetKinds::DisksLoopDevicesAndFiles;
    const std::string usage = test_build ? "usage: qm-writer-test [--inflater=zlib|isal] IMAGE.gz DEVICE"
                                         : "usage: qm-writer IMAGE.gz DEVICE";
    std::vector<std::string> args(argv + 1, argv + argc);
    Arguments parsed;
    if (test_build && !args.empty() && args[0].rfind("--inflater=", 0) == 0) {
        auto engine = parse_engine(args[0].substr(11));
        if (!engine) throw WriterError("unknown inflater " + args[0].substr(11) + " (zlib or isal)");
        parsed.engine = *engine;
        args.erase(args.begin());
    }
    if (args.size() != 2) throw WriterError(usage);
    for (const std::string& a : args)
        if (a.empty() || a[0] == '-') throw WriterError(usage);
    parsed.image = args[0];
    parsed.device = args[1];
    return parsed;
}

void run(const Arguments& args, TargetKinds kinds) {
    Target target = open_target(args.device, kinds);  // first: a wrong disk is refused whatever the image
    FileDescriptor image = open_image_as_invoking_user(args.image);
    refuse_smaller_than(target, smallest_possible_size(image.get()));
    ImageSize size = measure_image(image.get(), args.engine);
    refuse_smaller_than(target, size.uncompressed);
    refuse_image_on_target(target, image.get());
    unmount_partitions(target);
    OpenTarget out = open_for_writing(target);
    refuse_changed_disk(target);
    check_capacity(target, out);  // while a refusal still leaves the disk as it was

    ProgressLine progress('P', size.uncompressed);
    progress.start();
    auto inflater = make_inflater(args.engine, image.get());
    WrittenImage written = write_image(target, out, *inflater, size.uncompressed, progress);
    prepare_read_back(target, out);
    verify_written(out, written.bytes, written.hash);
}

}  // namespace

int writer_main(int argc, char** argv, TargetKinds kinds) {
    std::signal(SIGPIPE, SIG_IGN);  // an app that stops listening must not kill a write midway
    try {
        run(parse_arguments(argc, argv, kinds), kinds);
    } catch (const std::exception& e) {
        emit_error(e.what());
        return 1;
    }
    emit_done();
    return 0;
}
