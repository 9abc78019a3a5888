// qm-writer-test [--inflater=zlib|isal] IMAGE.gz DEVICE: the writer for tests and benchmarks,
// which also takes loop devices and regular files. Never installed, never in the app.
#include "writer_main.h"

int main(int argc, char** argv) { return writer_main(argc, argv, TargetKinds::DisksLoopDevicesAndFiles); }
