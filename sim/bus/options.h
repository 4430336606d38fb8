// The command line of orvd-bus.
#ifndef ORVD_SIM_BUS_OPTIONS_H
#define ORVD_SIM_BUS_OPTIONS_H

#include <cstdio>
#include <string>

enum class bus_command { help, send, listen, peer };
enum class payload_source { none, text, file, standard_input };

struct bus_options {
    bus_command command = bus_command::help;
    int as = 0;  // module to register as; 0: none (send only)
    int to = 0;  // module to send to
    payload_source source = payload_source::none;
    std::string text;  // --text
    std::string file;  // --file
    bool escaped = false;
    long count = 0;         // messages before listen ends; 0: no limit
    double timeout_s = 0;   // seconds before listen ends; 0: no limit
    double linger_s = 1.0;  // quiet seconds peer waits for more messages after the end of its input
};

// Fills *options from argv; on bad arguments returns false with the problem in *error.
bool parse_options(int argc, char** argv, bus_options* options, std::string* error);

// The synopsis, and with `full` what each command does.
void print_usage(FILE* out, bool full);

#endif
