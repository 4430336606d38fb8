// The emulated driver: which requests it answers and how.
#ifndef ORVD_SIM_VRTL_EMULATE_H
#define ORVD_SIM_VRTL_EMULATE_H

// <net/if.h> first: <linux/wireless.h> then leaves struct ifreq and IFNAMSIZ to the C library.
#include <net/if.h>

#include <linux/wireless.h>

#include <string>

#include "vrtl_radio.h"

namespace vrtl {

// True for the four private requests of the Realtek driver.
bool is_emulated(unsigned long request);

// Answers one of them like the driver: 0, or -1 with errno set. errno is left alone on
// success.
int emulate(int fd, unsigned long request, void* argument);

// One request being answered: its interface, the request and the radio's state.
struct request_context {
    std::string ifname;
    unsigned long request;
    struct iwreq* req;
    radio_file* radio;
};

// Writes "vrtl: <ifname>: <request>: <what>" on standard error (one write) and returns -1
// with errno set to `error`.
int refuse(const request_context& context, int error, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

int emulate_vendor_command(const request_context& context);
int emulate_set_mib(const request_context& context);
int emulate_get_mib(const request_context& context);
int emulate_scan_trigger(const request_context& context);

// Saves the state, or refuses the request with EIO when it cannot.
int save_or_refuse(const request_context& context);

}  // namespace vrtl

#endif
