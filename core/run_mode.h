// Which of the two modes the configuration file enabled.
#ifndef ORVD_CORE_RUN_MODE_H
#define ORVD_CORE_RUN_MODE_H

#include "core/websock_cfg.h"

enum class run_mode_t { none, wids, rrm };

// WIDS mode is checked first, so it wins when the file enables both services.
inline run_mode_t select_run_mode(const websock_cfg_t& config)
{
    if (config.services[WS_INSTANCE_ROAMING].enabled)
        return run_mode_t::wids;
    if (config.services[WS_INSTANCE_QUILLON].enabled)
        return run_mode_t::rrm;
    return run_mode_t::none;
}

#endif
