// The writer's whole run: arguments, checks, write, read-back, and the protocol's last line.
// The installed writer and the test build share it and differ only in what they accept.
#pragma once
#include "target.h"

int writer_main(int argc, char** argv, TargetKinds kinds);
