// The session behind the command when --dry-run is not given. It is the one place to change
// when the engine session is built into the tool.
#include "ReplayApp.h"
#include "ReplayError.h"

namespace qlmr::replay {

std::unique_ptr<ReplaySession> makeDefaultSession() {
    throw ReplayError(
        "this build of qlmr_replay has no engine session yet: run with --dry-run, which passes the "
        "frames through unchanged");
}

}  // namespace qlmr::replay
