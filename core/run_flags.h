// The process-wide run flags and the termination handler that clears them.
#ifndef ORVD_CORE_RUN_FLAGS_H
#define ORVD_CORE_RUN_FLAGS_H

// One flag per worker; each worker runs while its flag is true. The flags are written by the
// signal handler and read by the worker threads without locks, so every access goes through
// the two helpers below, which make the single-byte load or store atomic.
extern volatile bool wids_ipc_run;
extern volatile bool wids_ws_run;
extern volatile bool rrm_run;
extern volatile bool rrm_ws_run;

inline bool read_run_flag(const volatile bool& flag)
{
    return __atomic_load_n(&flag, __ATOMIC_RELAXED);
}

inline void write_run_flag(volatile bool& flag, bool value)
{
    __atomic_store_n(&flag, value, __ATOMIC_RELAXED);
}

// Installed for SIGTERM and SIGINT: logs and clears the four flags, nothing else.
void orvd_handle_signal(int signal_number);

#endif
