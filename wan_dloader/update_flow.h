// The firmware update: the stages in their order, each behind its gate.
#pragma once

#include <cstdint>

// Runs the update that the settings ask for (run_settings.h) and returns the exit status of the process: 0 after a
// normal end, also when nothing was due or the package is for another modem; 1 or the status of the stage that ended
// the run. Deeper steps may end the process themselves. Main thread; blocks for minutes.
[[nodiscard]] int32_t run_update();
