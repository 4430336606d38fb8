// MAC addresses as 48-bit numbers, so that interface addresses can be derived from the factory
// base address by adding an offset (with carry, as vendors do).
#ifndef ORVD_SIM_VDEV_MAC_ADDRESS_H
#define ORVD_SIM_VDEV_MAC_ADDRESS_H

#include <cstdint>
#include <string>

// Parses "a4:5e:60:00:10:00" (either case); false for anything else.
bool parse_mac(const std::string& text, uint64_t* mac);

// Lower case with colons, as sysfs shows it.
std::string format_mac(uint64_t mac);

// The address `offset` above `base`, wrapping within 48 bits.
uint64_t mac_plus(uint64_t base, uint64_t offset);

#endif
