/* Device transmit-power limits library. */
#ifndef ORVD_PLATFORM_LIBVALIDATOR_H
#define ORVD_PLATFORM_LIBVALIDATOR_H

#ifdef __cplusplus
extern "C" {
#endif

/* Fills the regulatory minimum and maximum transmit power (dBm) of interface `ifname` on
 * `band` (2 or 5, the band's nominal GHz). Returns 0; on failure (no limits known) writes 0
 * to both and returns -1. */
int libvalidator_fill_min_max_tx_power(const char* ifname, int* min, int* max, int band);

#ifdef __cplusplus
}
#endif

#endif
