// orvd: radio-resource-management agent (RRM mode) or WIDS bridge (WIDS mode).
#include <sys/prctl.h>

#include <csignal>
#include <cstdlib>
#include <ctime>

#include "core/run_flags.h"
#include "core/run_mode.h"
#include "core/safe_queue.h"
#include "core/trace.h"
#include "core/websock_cfg.h"
#include "vorna_log.h"

namespace {

// WIDS mode: the roaming service on WebSocket, bridged to the local daemon on the bus.
int run_wids_mode(const websock_cfg_t&)
{
    safe_queue from_bus;     // filled by the bus side, sent to the server
    safe_queue from_server;  // filled by the WebSocket side, sent to the bus
    trace.error("%s mode is not available in this build\n", "WIDS");
    return 0;
}

// RRM mode: the agent drives the radios and talks to the RRM service.
int run_rrm_mode(const websock_cfg_t&)
{
    safe_queue to_server;    // the agent's output
    safe_queue from_server;  // the agent's input
    trace.error("%s mode is not available in this build\n", "RRM");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    init_vorna_logrotate("ORVD");
    srand(static_cast<unsigned>(time(nullptr)));
    prctl(PR_SET_NAME, "orvd:main", 0, 0, 0);

    websock_cfg_t config(argc, const_cast<const char**>(argv));
    trace.set_log_level(orvd_log_level);

    const bool wids = config.services[WS_INSTANCE_ROAMING].enabled;
    const bool rrm = config.services[WS_INSTANCE_QUILLON].enabled;
    write_run_flag(wids_ipc_run, wids);
    write_run_flag(wids_ws_run, wids);
    write_run_flag(rrm_run, rrm);
    write_run_flag(rrm_ws_run, rrm);

    signal(SIGTERM, orvd_handle_signal);
    signal(SIGINT, orvd_handle_signal);

    switch (select_run_mode(config)) {
    case run_mode_t::wids:
        return run_wids_mode(config);
    case run_mode_t::rrm:
        return run_rrm_mode(config);
    case run_mode_t::none:
        break;
    }
    return 0;
}
