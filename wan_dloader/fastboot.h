// The tablet's services around an update, and the modem's boot loader. Main thread.
#pragma once

// Stops the radio daemon, which would hold the modem's ports, and gives it 10 seconds to let go of them.
void StopRilDaemon();

// Starts the radio daemon again, in the background.
void StartRilDaemon();
