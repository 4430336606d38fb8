#include "options.h"

#include <cstring>

namespace {

bool is_help(const char* word)
{
    return std::strcmp(word, "--help") == 0 || std::strcmp(word, "-h") == 0 || std::strcmp(word, "help") == 0;
}

}  // namespace

bool parse_options(int argc, char** argv, vdev_options* options, std::string* error)
{
    *options = vdev_options();
    bool control = false;
    for (int i = 1; i < argc; ++i) {
        const char* word = argv[i];
        if (control) {
            options->words.emplace_back(word);
            continue;
        }
        if (is_help(word)) {
            options->mode = vdev_mode::help;
            return true;
        }
        if (std::strcmp(word, "ctl") == 0) {
            control = true;
            continue;
        }
        std::string* target = nullptr;
        if (std::strcmp(word, "--root") == 0)
            target = &options->root;
        else if (std::strcmp(word, "--scenario") == 0)
            target = &options->scenario;
        if (target == nullptr) {
            *error = std::string("unknown argument ") + word;
            return false;
        }
        if (!target->empty()) {
            *error = std::string(word) + " given twice";
            return false;
        }
        if (i + 1 >= argc || argv[i + 1][0] == '\0') {
            *error = std::string(word) + " needs a value";
            return false;
        }
        *target = argv[++i];
    }
    if (options->root.empty()) {
        *error = "--root is missing";
        return false;
    }
    if (control) {
        if (!options->scenario.empty()) {
            *error = "ctl takes no --scenario";
            return false;
        }
        if (options->words.empty()) {
            *error = "ctl needs a command";
            return false;
        }
        options->mode = vdev_mode::control;
        return true;
    }
    if (options->scenario.empty()) {
        *error = "--scenario is missing";
        return false;
    }
    options->mode = vdev_mode::run;
    return true;
}

void print_usage(FILE* out)
{
    std::fputs("usage: orvd-vdev --root DIR --scenario FILE\n"
               "       orvd-vdev --root DIR ctl COMMAND...\n"
               "\n"
               "The first form builds the device tree under DIR, answers as networkd (bus module 6)\n"
               "and configd (module 1) and plays hostapd and widsd until SIGTERM, SIGINT or \"quit\".\n"
               "The second sends one command to the simulator running on DIR:\n"
               "  hostapd start|stop|restart    widsd start|stop|restart\n"
               "  config-updated                timezone-changed\n"
               "  state                         quit\n",
               out);
}
