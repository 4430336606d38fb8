// The Realtek driver's private requests over one datagram socket: MIB set and get, the RRM
// scan trigger and the vendor commands (scan, station list, channel list).
#ifndef ORVD_DRIVER_IOCTL_OPS_H
#define ORVD_DRIVER_IOCTL_OPS_H

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "driver/driver_interface.h"
#include "driver/radio_types.h"
#include "driver/vorna_command.h"

// Return codes of every operation: 0 done, -1 the request or an allocation failed (logged
// as an error with errno's text), -2 there is no socket (logged as a warning). A failed
// operation leaves the caller's container as it was; a successful one appends to it.
class ioctl_ops {
public:
    ioctl_ops(const driver_interface& driver, std::string ifname);
    ~ioctl_ops();
    ioctl_ops(const ioctl_ops&) = delete;
    ioctl_ops& operator=(const ioctl_ops&) = delete;

    // Drops the old socket, names the interface and opens a new socket; 0 or -1.
    int assign(const driver_interface& new_driver, const std::string& ifname);
    // Closes the socket; every operation but set_mib and get_mib then returns -2.
    void reset();

    int execute(vorna_cmd_t cmd, std::function<void(vorna_command_t&, int, unsigned int)> fill,
                std::function<void()> parse);

    // Writes "name=value". Does not check the socket: a missing one fails in the ioctl.
    int set_mib(const std::string& name, const std::string& value);
    // Reads a MIB into `out`, which must hold the value's size (at most 2048 bytes). Returns
    // the ioctl's result (>= 0) or -1. Does not check the socket either.
    int get_mib(const char* name, void* out);

    int start_scan(const std::set<unsigned>& channels);
    int stop_scan();
    // Sets the "rrm_scan_chan" MIB, then triggers the scan. When the driver refuses the MIB
    // no scan is triggered and the call still returns 0: the agent just finds no results.
    int start_rrm_scan(unsigned channel);
    int stop_rrm_scan();

    int get_scan_result(ap_table& table);
    int get_rrm_scan_result(ap_table& table);
    int get_assoc_sta(std::vector<rrm_sta_realtek>& stations);
    int get_available_channels(std::set<unsigned>& channels);

    // Request fillers, as execute() calls them: the block, the capacity multiplier and the
    // block's size.
    static void fill_start_scan(vorna_command_t& block, const std::set<unsigned>& channels,
                                unsigned int size);
    static void fill_scan_result(vorna_command_t& block, int multiplier, unsigned int size);
    static void fill_assoc_sta(vorna_command_t& block, int multiplier, unsigned int size);
    static void fill_available_channels(vorna_command_t& block, int multiplier, unsigned int size);

    // Reply parsers over one whole block. They trust the driver's count only as far as the
    // block reaches: whatever the count, no record past the block's end is read.
    static void parse_scan_result(const driver_interface& driver, const vorna_command_t& reply,
                                  ap_table& table);
    static void parse_rrm_scan_result(const driver_interface& driver, const vorna_command_t& reply,
                                      ap_table& table);
    static void parse_assoc_sta(const vorna_command_t& reply, std::vector<rrm_sta_realtek>& stations);
    static void parse_available_channels(const vorna_command_t& reply, std::set<unsigned>& channels);

    // Public so that the drivers built on it and the tests can see the last request.
    int sock = -1;
    struct iwreq req;
    const driver_interface* driver = nullptr;

private:
    // The reply of the command that execute() is running.
    const vorna_command_t& reply() const;
};

#endif
