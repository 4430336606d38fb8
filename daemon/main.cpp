// orvd: radio-resource-management agent (RRM mode) or WIDS bridge (WIDS mode).
#include <sys/prctl.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "core/free_memory.h"
#include "core/run_flags.h"
#include "core/run_mode.h"
#include "core/safe_queue.h"
#include "core/trace.h"
#include "core/websock_cfg.h"
#include "driver/driver_realtek.h"
#include "rrm/rrm_worker.h"
#include "transport/ipc_worker.h"
#include "transport/websock_worker.h"
#include "vorna_log.h"

namespace {

// WIDS mode: the roaming service on WebSocket, bridged to the local daemon on the bus. Both
// workers get the queues in the same order: the bus side fills Q1 and drains Q2.
int run_wids_mode(const websock_cfg_t& config)
{
    const ws_service_cfg_t& service = config.services[WS_INSTANCE_ROAMING];
    safe_queue q1;
    safe_queue q2;
    auto websock = std::make_unique<websock_worker>(q1, q2, service.host, service.path, service.port,
                                                    wids_ws_run, service.initial_connection_delay,
                                                    service.max_connection_delay, WS_SERVICE_ROAMING);
    auto ipc = std::make_unique<ipc_worker>(q1, q2, IPC_MODULE_WIDS_BRIDGE, wids_ipc_run);
    ipc->start();
    websock->start();
    ipc->join();
    ipc.reset();
    websock->join();
    websock.reset();
    return 0;
}

// RRM mode: the agent drives the radios and talks to the RRM service. The agent gets the
// WebSocket worker's queues swapped: it reads what the worker received (QB) and writes what
// the worker sends (QA).
int run_rrm_mode(const websock_cfg_t& config)
{
    const ws_service_cfg_t& service = config.services[WS_INSTANCE_QUILLON];
    safe_queue qa;
    safe_queue qb;
    driver_interface& driver = make_driver(rrm_run);
    auto websock = std::make_unique<websock_worker>(qa, qb, service.host, service.path, service.port,
                                                    rrm_ws_run, service.initial_connection_delay,
                                                    service.max_connection_delay, WS_SERVICE_RRM);
    auto agent = std::make_unique<rrm_worker>(driver, qb, qa, rrm_run, service.ap_location);
    websock->start();
    agent->start();
    agent->join();
    websock->join();
    agent.reset();
    websock.reset();
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    init_vorna_logrotate("ORVD");
    map_large_blocks_apart();
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
