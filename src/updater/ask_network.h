// Asking the system's network list manager whether an update check may run.
#pragma once

#include "platform/handle.h"
#include "updater/network_gate.h"

#include <netlistmgr.h>

namespace corvo::updater {

// Creates the network list manager in `manager` and judges what it answers. Any failure to ask leaves the gate open: a machine
// whose network service is broken should still get updates. COM is initialised on the calling thread.
gate ask_network(pwrap::com_obj<INetworkListManager>& manager) noexcept;

} // namespace corvo::updater
