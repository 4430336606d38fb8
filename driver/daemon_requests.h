// The driver's exchanges with the device daemons: it asks networkd (bus module 6) to change a
// radio or a VAP and configd (module 1) for configuration values, because it never edits the
// device configuration itself. Each exchange is one request and one awaited reply, run
// synchronously on the caller's thread; the bus library must already be set up
// (InitLibParams) by the caller.
#ifndef ORVD_DRIVER_DAEMON_REQUESTS_H
#define ORVD_DRIVER_DAEMON_REQUESTS_H

#include <string>
#include <utility>
#include <vector>

#include "cfg_tree.h"

// Holds only the bus calls it makes: every operation opens and closes the bus peer around its
// own exchange.
class daemon_requests {
public:
    using param_list = std::vector<std::pair<std::string, std::string>>;

    // The bus library's functions one exchange uses; the library's own by default. Their
    // return values are not relied on: what the device library answers is not known.
    struct bus_calls {
        int (*peer_start)();
        int (*send)(const void* payload, int module, unsigned int length);
        cfg_t* (*wait)(const char* command, const char* error_text, int timeout);
        void (*peer_stop)();
    };
    static const bus_calls library_calls;

    daemon_requests() : bus(library_calls) {}
    explicit daemon_requests(const bus_calls& calls) : bus(calls) {}

    // How long one exchange waits for its reply, in MSGBUS_WAIT_UNIT_MS units (100 ms).
    static constexpr int reply_timeout_units = 20;

    // Sends `request` to `module` and waits for the reply whose "command" is `reply_command`:
    // start the peer, send, wait, stop the peer, always in that order and whatever the peer
    // start and the send answer. Returns the reply (the caller releases it with cfg_release),
    // or null after the wait has logged `error_text` (no reply in time, or none can come).
    cfg_t* send_and_wait(cfg_t* request, const char* reply_command, int module, const char* error_text) const;

    // Asks networkd to set `params` (sent in the given order, all as text) on `ifname`.
    // 0 when networkd answers "ok"; -1 when it refuses, does not answer, or there is nothing
    // to send.
    int update_quillon(const std::string& ifname, const param_list& params) const;

    // Reads the configuration value at `path` from configd into `value`: a plain value as
    // its text, a JSON null or a missing value as empty text, a subtree as readable JSON.
    // -1 (and `value` untouched) when the path is empty or configd does not answer.
    int configd_get(const std::string& path, std::string& value) const;

    // Asks networkd to set the fast-transition settings `params` (a JSON object text) on
    // `ifname`. 0 whenever networkd answers, even with a refusal (which is only logged); -1
    // when it does not answer or `params` is not a JSON object (then nothing is sent).
    int set_quillon_fbt_params(const std::string& ifname, const std::string& params) const;

    // Asks networkd to put `ifname`'s radio settings back. 0 on "ok", else -1.
    int send_reset_quillon(const std::string& ifname) const;

    // After a full reset (cause 0) both radios are put back; other causes change nothing.
    void reset_quillon(int cause) const;

    // Fast-transition settings are left alone on every reset cause.
    int reset_quillon_fbt(int cause) const;

    // Puts the fast-transition settings of every VAP (wlan0-va0 ... wlan1-va<max_vap-1>) back.
    // Stops with -1 at the first VAP networkd does not answer for; a refusal is logged and
    // the next VAP follows. 0 after the last one.
    int reset_quillon_fbt_all(int max_vap) const;

private:
    bus_calls bus;
};

#endif
