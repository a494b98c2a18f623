// The protocol tables wayland-scanner generates as C, compiled here as C++. The headers come first:
// their extern declarations give the tables the external linkage C++ would otherwise deny a const.
#include "virtual-keyboard-unstable-v1-client-protocol.h"
#include "wlr-data-control-unstable-v1-client-protocol.h"

#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Weverything"
extern "C" {
#include "virtual-keyboard-unstable-v1-protocol.c"
#include "wlr-data-control-unstable-v1-protocol.c"
}
#pragma clang diagnostic pop
