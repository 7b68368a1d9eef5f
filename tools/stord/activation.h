#pragma once

#include <string>

// The listening socket a service manager hands over when it starts stord on
// socket activation: descriptor 3, announced by LISTEN_PID (this process)
// and LISTEN_FDS (exactly 1). Returns it, non-blocking and close-on-exec,
// and clears those variables so no child takes them as its own. -1 with
// why left empty when nothing was handed over; -1 with why set when what
// was handed over cannot be served.
int stord_socket_inherited(std::string *why);
