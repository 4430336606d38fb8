#include "core/run_flags.h"

#include "core/trace.h"

volatile bool wids_ipc_run = false;
volatile bool wids_ws_run = false;
volatile bool rrm_run = false;
volatile bool rrm_ws_run = false;

void orvd_handle_signal(int)
{
    // The same text for SIGINT as for SIGTERM.
    trace.debug("orvd_handle_signal: TERM\n");
    write_run_flag(wids_ipc_run, false);
    write_run_flag(wids_ws_run, false);
    write_run_flag(rrm_run, false);
    write_run_flag(rrm_ws_run, false);
}
