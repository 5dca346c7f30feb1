// The process's access to the interface group "brund" and its application queue "TarnikQ".
//
// Functions with an int result return a QResult (tarnik_q.h). They may be called from several
// threads: one process-wide mutex serialises them. Two exceptions: TarnikIfgOpen is meant for one
// thread at a time, and TarnikIfgClose requires that no thread frees frames any more.
#pragma once

#include <cstddef>

#include "frameq/tarnik_q.h"
#include "zorlib/zorlib.h"

namespace tarnik {

// Opens the group, once per process. Returns kQOk at once when it is open already.
[[nodiscard]] int TarnikIfgOpen();
void TarnikIfgClose();
// Creates a TarnikQ that is not open; null when no group is open or memory is short. The caller
// closes it, then passes it to TarnikIfDestroy.
[[nodiscard]] TarnikQ* TarnikIfCreate();
void TarnikIfDestroy(TarnikQ* q);

// For the queue's owner: create the queue (51 to 99999 entries, any other size gives 5000) and
// remove it. TarnikIfQInit2 and TarnikIfQFini2 use a group that the caller has opened, and never
// open or close one.
[[nodiscard]] int TarnikIfQInit(std::size_t size);
[[nodiscard]] int TarnikIfQInit2(zorlib_ifg* ifgHandle, std::size_t size);
[[nodiscard]] int TarnikIfQFini();
[[nodiscard]] int TarnikIfQFini2();

}  // namespace tarnik
