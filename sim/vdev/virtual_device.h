// The simulated access point's radios and configuration: one owner for the configuration tree
// that configd serves and for the radio files that vrtl reads, so that an accepted update shows
// in both at once and a refused one in neither.
#ifndef ORVD_SIM_VDEV_VIRTUAL_DEVICE_H
#define ORVD_SIM_VDEV_VIRTUAL_DEVICE_H

#include <string>
#include <vector>

#include "config_tree.h"
#include "json_util.h"
#include "scenario.h"

// What a radio transmits with, read from its node of the configuration tree.
struct radio_settings {
    channel_use use;
    int tx_power = 0;
    int chanspec = 0;
};

class virtual_device {
public:
    explicit virtual_device(scenario setup);

    // Checks every radio's settings against its channels and limits and writes the device tree
    // and the radio state files. False with the problem; *bad_scenario when the scenario is at
    // fault rather than the file system.
    bool build(std::string* error, bool* bad_scenario);

    const scenario& setup() const { return scenario_; }
    cfg_t* config() { return config_.get(); }

    // Merges `params` (an object of plain values) into the radio's settings. Refused without
    // any change when a value is not valid for the radio.
    bool update_radio(const radio& entry, json_object* params, std::string* reason);
    // Back to the scenario's settings.
    bool reset_radio(const radio& entry, std::string* reason);

    // Fast-transition settings of a VAP, kept in its "ft-config" node.
    bool update_fast_transition(const vap& entry, json_object* params, std::string* reason);
    bool reset_fast_transition(const vap& entry, std::string* reason);

    // Replaces the neighbours heard beyond the scenario's and rewrites the scan results of every
    // radio that has a state file. False with the first file that could not be rewritten.
    bool replace_neighbours(std::vector<neighbour> added, std::string* reason);

    // The radios' current settings, chanspecs and powers, by radio name.
    json_ptr radios_state();

private:
    // Reads and checks radio settings; false with the reason.
    bool check_settings(const radio& entry, json_object* settings, radio_settings* result,
                        std::string* reason) const;
    // Writes the radio's files for `settings`, then puts `candidate` into the configuration tree.
    bool apply(const radio& entry, json_object* candidate, const radio_settings& settings,
               std::string* reason);
    json_ptr current_settings(const radio& entry);

    scenario scenario_;
    std::vector<neighbour> added_neighbours_;  // set at run time, heard after the scenario's
    cfg_ptr config_;
};

#endif
