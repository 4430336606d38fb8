#include "core/websock_cfg.h"

#include <strings.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/trace.h"

int orvd_log_level = 0;
bool orvd_log_to_file = false;
std::string orvd_log_file_name;

namespace {

const char default_ap_location[] = "default-rrm-domain";
// fgets reads at most 254 characters of a line; the rest is read as a further line.
constexpr int line_buffer_size = 255;

void copy_text(char (&target)[256], const char* source)
{
    strncpy(target, source, sizeof(target) - 1);
    target[sizeof(target) - 1] = '\0';
}

bool starts_with_key(const char* line, const char* key)
{
    return strncasecmp(line, key, strlen(key)) == 0;
}

}  // namespace

int cut_line_end(char* text)
{
    const int length = static_cast<int>(strlen(text));
    text[strcspn(text, "\n\r")] = '\0';
    return length;
}

websock_cfg_t::websock_cfg_t(int argc, const char** argv)
{
    memset(services, 0, sizeof(services));
    // Everything is written while the command line and the file are read.
    trace.set_log_level(65535);

    std::string file;
    bool have_file = false;
    int option;
    while ((option = getopt(argc, const_cast<char* const*>(argv), "f:d:p:P:")) != -1) {
        switch (option) {
        case 'f':
            file = optarg;
            have_file = true;
            break;
        case 'd':
            for (auto& service : services)
                copy_text(service.host, optarg);
            break;
        case 'p':
            for (auto& service : services)
                copy_text(service.path, optarg);
            break;
        case 'P':
            for (auto& service : services)
                service.port = atoi(optarg);
            break;
        default:
            exit(-1);
        }
    }
    if (have_file && !parse_file(file.c_str()))
        config_error = 1;
}

bool websock_cfg_t::parse_file(const char* path)
{
    for (auto& service : services)
        copy_text(service.ap_location, default_ap_location);
    orvd_log_to_file = false;
    orvd_log_level = 0;

    FILE* file = fopen(path, "r");
    if (file == nullptr)
        return false;
    const bool complete = parse_stream(file);
    fclose(file);
    return complete;
}

bool websock_cfg_t::parse_stream(FILE* file)
{
    char line[line_buffer_size];
    while (fgets(line, sizeof(line), file) != nullptr) {
        // The first key that matches the line's beginning decides; other lines are skipped.
        char* value = nullptr;
        int key_length = 0;
        auto key_is = [&](const char* key) {
            if (!starts_with_key(line, key))
                return false;
            key_length = static_cast<int>(strlen(key));
            value = line + key_length;
            return true;
        };
        if (key_is("roam_service_url=")) {
            if (!setup_service_config(WS_INSTANCE_ROAMING, line, key_length))
                return false;
        } else if (key_is("quillon_service_url=")) {
            if (!setup_service_config(WS_INSTANCE_QUILLON, line, key_length))
                return false;
        } else if (key_is("mac-list-service-url=")) {
            if (!setup_service_config(WS_INSTANCE_MAC_LIST, line, key_length))
                return false;
        } else if (key_is("initial_connection_delay=")) {
            for (auto& service : services)
                service.initial_connection_delay = static_cast<uint32_t>(strtoul(value, nullptr, 10));
        } else if (key_is("max_connection_delay=")) {
            for (auto& service : services)
                service.max_connection_delay = static_cast<uint32_t>(strtoul(value, nullptr, 10));
        } else if (key_is("ap_location=")) {
            for (auto& service : services) {
                copy_text(service.ap_location, value);
                cut_line_end(service.ap_location);
            }
        } else if (key_is("log_level=")) {
            const bool hex = strncasecmp(value, "0x", 2) == 0;
            log_level = static_cast<uint32_t>(strtoul(hex ? value + 2 : value, nullptr, hex ? 16 : 10));
            orvd_log_level = static_cast<int>(log_level);
            trace.set_log_level(orvd_log_level);
        } else if (key_is("log_file=")) {
            orvd_log_to_file = true;
            cut_line_end(value);
            orvd_log_file_name = value;
        } else if (key_is("mac-list-id=")) {
            cut_line_end(value);
            mac_list_id = value;
        }
    }
    return true;
}

bool websock_cfg_t::setup_service_config(ws_instance_id id, char* line, int key_length)
{
    ws_service_cfg_t& service = services[id];
    char* text = line + key_length;

    const char* scheme = nullptr;
    char* rest = text;
    if (char* separator = strstr(text, "://")) {
        *separator = '\0';
        scheme = text;
        rest = separator + 3;
    }

    char* host = rest;
    char* port_text = nullptr;
    if (char* colon = strchr(rest, ':')) {
        *colon = '\0';
        port_text = colon + 1;
    }

    char* path_text = nullptr;
    if (char* slash = strchr(port_text != nullptr ? port_text : host, '/')) {
        *slash = '\0';
        path_text = slash + 1;
    }

    // Plain WebSocket only: wss is refused as well.
    if (scheme != nullptr && strcmp(scheme, "ws") != 0) {
        trace.debug("Proto %s is invalid\n", scheme);
        return false;
    }

    // Without a port or a path the record stays as it was; that is not an error.
    if (port_text != nullptr && path_text != nullptr) {
        copy_text(service.host, host);
        snprintf(service.path, sizeof(service.path), "/%s", path_text);
        service.port = atoi(port_text);
        service.enabled = true;
    }
    cut_line_end(service.host);
    cut_line_end(service.path);
    return true;
}
