// vrtl's radio state files, for tests and simulators that set radios up without orvd-vdev.
// A radio's state is $ORVD_ROOT/sim/vrtl/<radio>.json (see docs/virtual-ap.md). Every access
// here and in the emulated driver holds an flock on $ORVD_ROOT/sim/vrtl/<radio>.lock, so that
// a read-modify-write never loses another writer's change.
#ifndef ORVD_SIM_VRTL_STATE_H
#define ORVD_SIM_VRTL_STATE_H

#include <functional>
#include <string>

struct iwreq;

namespace vrtl {

// The radio an interface belongs to: "wlan0" for "wlan0" and for "wlan0-va3".
std::string radio_of(const std::string& ifname);
// True for a VAP interface ("wlan0-va3"), false for a radio ("wlan0").
bool is_vap(const std::string& ifname);
// device_path("/sim/vrtl/<radio>.json").
std::string state_path(const std::string& radio);

// Replaces the radio's state with `json_text`, which must be one JSON object (the directory is
// created when missing). Atomic: temporary file, then rename. False on bad text or I/O errors.
bool write_state(const std::string& radio, const std::string& json_text);
// The radio's state as compact JSON, or "" when the radio has no state file.
std::string read_state(const std::string& radio);
// One member of the state as compact JSON, reached by a dotted path ("mibs.rrm_scan_chan",
// "counters.start_scan", "last_scan_channels"); "" when absent.
std::string read_value(const std::string& radio, const std::string& dotted_path);
// Removes the radio's state file: its interfaces then no longer exist (ENODEV).
void remove_state(const std::string& radio);

// Called with every request vrtl emulates, before it is checked, on the calling thread (`req`
// may be null). For in-process tests that look at the exact bytes a request carries. An empty
// function removes the observer.
using request_observer = std::function<void(unsigned long request, const struct iwreq* req)>;
void set_request_observer(request_observer observer);

}  // namespace vrtl

#endif
