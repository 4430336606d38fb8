/* Device factory-data library. */
#ifndef ORVD_PLATFORM_LIBFACTORY_H
#define ORVD_PLATFORM_LIBFACTORY_H

#ifdef __cplusplus
extern "C" {
#endif

#define FACTORY_TEXT_SIZE 32

/* Texts are NUL-padded and not terminated when they fill all 32 characters. */
typedef struct factory_data_s {
    unsigned int version;
    char board[FACTORY_TEXT_SIZE];
    char hw[FACTORY_TEXT_SIZE];
    char serial[FACTORY_TEXT_SIZE];
    char mac[FACTORY_TEXT_SIZE];
} factory_data_t;

/* Fills `data` from the device's factory data. Returns 0, or -1 (data zeroed) when there is
 * none. */
int libfactory_load(factory_data_t* data);

#ifdef __cplusplus
}
#endif

#endif
