// Start-up configuration: the command line, then one key=value configuration file.
#ifndef ORVD_CORE_WEBSOCK_CFG_H
#define ORVD_CORE_WEBSOCK_CFG_H

#include <cstdint>
#include <cstdio>
#include <string>

// Index of a service record.
enum ws_instance_id {
    WS_INSTANCE_ROAMING = 0,   // WIDS mode: "roam_service_url="
    WS_INSTANCE_QUILLON = 1,   // RRM mode: "quillon_service_url="
    WS_INSTANCE_MAC_LIST = 2,  // "mac-list-service-url=": parsed and kept, nothing runs it
    WS_INSTANCE_COUNT = 3,
};

struct ws_service_cfg_t {
    char ap_location[256];
    char host[256];
    char path[256];  // begins with "/" when it was set from a URL
    int32_t port;
    bool enabled;  // only a URL with host, port and path sets it
    uint32_t initial_connection_delay;
    uint32_t max_connection_delay;
};

struct websock_cfg_t {
    ws_service_cfg_t services[WS_INSTANCE_COUNT];
    uint32_t log_level = 0;
    int service_count = WS_INSTANCE_COUNT;  // nothing reads it
    int config_error = 0;                   // nothing reads it either: a bad file stops nothing
    std::string mac_list_id;

    websock_cfg_t(int argc, const char** argv);

    // True when the file was read to its end.
    bool parse_file(const char* path);
    // The same, over an open stream (the file is closed by parse_file).
    bool parse_stream(FILE* file);
    // Parses the URL that stands in line after the key of key_length characters.
    bool setup_service_config(ws_instance_id id, char* line, int key_length);
};

// Cuts the text at its first '\n' or '\r'; returns the length it had before the cut.
int cut_line_end(char* text);

// Process-wide settings of the log: its level, and the log-to-file flag and file name, which
// are stored settings that nothing acts on.
extern int orvd_log_level;
extern bool orvd_log_to_file;
extern std::string orvd_log_file_name;

#endif
