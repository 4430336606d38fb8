// The 802.11r mobility domain of an RRM domain. Every access point of one RRM domain derives
// the same value from the domain's name, so no one has to hand it out.
#ifndef ORVD_RRM_MOBILITY_DOMAIN_H
#define ORVD_RRM_MOBILITY_DOMAIN_H

#include <cstdint>
#include <string>

// A plain 16-bit CRC of the text's bytes with the polynomial 0x8005: register 0, bits taken
// most significant first, no augmenting zero bits and no final XOR. This is not the common
// table-driven CRC-16; access points already deployed use exactly this value, so it must not
// be replaced by one. "" gives 0, "a" 97, "default-rrm-domain" 54202.
uint16_t mobility_domain_crc(const std::string& text);

#endif
