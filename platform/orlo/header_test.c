/* The header is usable from C, and the layouts that cross process and language borders are what
 * it says. */
#include <orlo_sdk.h>

_Static_assert(sizeof(OrloCmdSender) == 116, "sender block");
_Static_assert(offsetof(OrloCmdSender, address.sun_path) == 2, "sender's name");
_Static_assert(offsetof(OrloWatchdogTimer, elapsed) == 28, "elapsed word");
_Static_assert(sizeof(OrloStatsHeader) == 64, "statistics header");
_Static_assert(offsetof(OrloStatsHeader, size) == 8, "statistics size");
_Static_assert(offsetof(OrloStatsHeader, ownerPid) == 16, "statistics owner");
_Static_assert(offsetof(OrloStatsHeader, ownerStart) == 24, "statistics owner's start");
_Static_assert(offsetof(OrloStatsHeader, name) == 32, "statistics name");
