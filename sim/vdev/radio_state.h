// The radio state files that vrtl, the emulated driver, answers from: sim/vrtl/<radio>.json
// below the device root, in the format of docs/virtual-ap.md. Every access holds vrtl's lock,
// an flock on sim/vrtl/<radio>.lock.
#ifndef ORVD_SIM_VDEV_RADIO_STATE_H
#define ORVD_SIM_VDEV_RADIO_STATE_H

#include <string>
#include <vector>

#include "json_util.h"
#include "scenario.h"

std::string radio_state_path(const radio& entry);

// The whole state of a radio as the scenario starts it: the neighbours this radio hears, in
// the two scan kinds (the scenario's, then `added`), the stations of its VAPs and its MIBs.
json_ptr initial_radio_state(const scenario& setup, const std::vector<neighbour>& added, const radio& entry,
                             int chanspec, int tx_power);

// Writes `state` as the radio's file.
bool write_radio_state(const radio& entry, json_object* state, std::string* error);

// Sets chanspec and actual_tx_power in the radio's file and keeps everything else in it: the
// MIBs, counters and scan channels vrtl wrote. A missing or unreadable file is built anew.
bool update_radio_state(const scenario& setup, const std::vector<neighbour>& added, const radio& entry,
                        int chanspec, int tx_power, std::string* error);

// Rebuilds scan_results and rrm_scan_results in the radio's file from the scenario's neighbours
// and `added`, and keeps everything else in it. A radio without a file is left without one.
bool replace_scan_results(const scenario& setup, const std::vector<neighbour>& added, const radio& entry,
                          std::string* error);

#endif
