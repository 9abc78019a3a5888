// qm-writer IMAGE.gz DEVICE: run as root on behalf of the app; reports on stdout in the line
// protocol of protocol.h. Takes only USB sticks and SD cards.
#include "writer_main.h"

int main(int argc, char** argv) { return writer_main(argc, argv, TargetKinds::Disks); }
