#include "options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

constexpr long highest_module = 65535;
constexpr double longest_wait_s = 1e6;

bool parse_long(const char* text, long lowest, long highest, long* value)
{
    if (*text == '\0' || *text == '+' || *text == '-' || *text == ' ')
        return false;
    errno = 0;
    char* end = nullptr;
    const long parsed = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || parsed < lowest || parsed > highest)
        return false;
    *value = parsed;
    return true;
}

bool parse_seconds(const char* text, double* value)
{
    if (*text == '\0' || *text == '+' || *text == '-' || *text == ' ')
        return false;
    errno = 0;
    char* end = nullptr;
    const double parsed = std::strtod(text, &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(parsed) || parsed < 0 || parsed > longest_wait_s)
        return false;
    *value = parsed;
    return true;
}

class argument_reader {
public:
    argument_reader(int count, char** arguments, std::string* problem)
        : argc(count), argv(arguments), error(problem)
    {
    }

    bool done() const { return next >= argc; }
    const char* take() { return argv[next++]; }

    // The value after the option just taken.
    const char* value(const char* option)
    {
        if (next >= argc) {
            *error = std::string(option) + " needs a value";
            return nullptr;
        }
        return argv[next++];
    }

    bool module(const char* option, int* module)
    {
        const char* text = value(option);
        if (text == nullptr)
            return false;
        long parsed = 0;
        if (!parse_long(text, 1, highest_module, &parsed))
            return complain(option, text, "a module number from 1 to 65535");
        *module = static_cast<int>(parsed);
        return true;
    }

    bool seconds(const char* option, bool zero_allowed, double* seconds)
    {
        const char* text = value(option);
        if (text == nullptr)
            return false;
        if (!parse_seconds(text, seconds) || (!zero_allowed && *seconds == 0))
            return complain(option, text, zero_allowed ? "seconds (0 or more)" : "seconds (more than 0)");
        return true;
    }

    bool count(const char* option, long* count)
    {
        const char* text = value(option);
        if (text == nullptr)
            return false;
        if (!parse_long(text, 1, 1000000000L, count))
            return complain(option, text, "a count of 1 or more");
        return true;
    }

    bool complain(const std::string& what, const char* text, const char* expected)
    {
        *error = what + " " + text + ": expected " + expected;
        return false;
    }

    bool fail(const std::string& problem)
    {
        *error = problem;
        return false;
    }

private:
    int argc;
    char** argv;
    std::string* error;
    int next = 1;
};

bool is_help(const char* argument)
{
    return std::strcmp(argument, "--help") == 0 || std::strcmp(argument, "-h") == 0;
}

bool parse_send(argument_reader& args, bus_options* options)
{
    int sources = 0;
    while (!args.done()) {
        const char* option = args.take();
        if (is_help(option)) {
            options->command = bus_command::help;
            return true;
        }
        if (std::strcmp(option, "--to") == 0) {
            if (!args.module(option, &options->to))
                return false;
        } else if (std::strcmp(option, "--as") == 0) {
            if (!args.module(option, &options->as))
                return false;
        } else if (std::strcmp(option, "--text") == 0) {
            const char* text = args.value(option);
            if (text == nullptr)
                return false;
            options->text = text;
            options->source = payload_source::text;
            ++sources;
        } else if (std::strcmp(option, "--file") == 0) {
            const char* file = args.value(option);
            if (file == nullptr)
                return false;
            options->file = file;
            options->source = payload_source::file;
            ++sources;
        } else if (std::strcmp(option, "--stdin") == 0) {
            options->source = payload_source::standard_input;
            ++sources;
        } else {
            return args.fail(std::string("send: unknown argument ") + option);
        }
    }
    if (options->to == 0)
        return args.fail("send needs --to");
    if (sources != 1)
        return args.fail("send needs exactly one of --text, --file and --stdin");
    return true;
}

bool parse_listen(argument_reader& args, bus_options* options)
{
    while (!args.done()) {
        const char* option = args.take();
        if (is_help(option)) {
            options->command = bus_command::help;
            return true;
        }
        if (std::strcmp(option, "--as") == 0) {
            if (!args.module(option, &options->as))
                return false;
        } else if (std::strcmp(option, "--escaped") == 0) {
            options->escaped = true;
        } else if (std::strcmp(option, "--count") == 0) {
            if (!args.count(option, &options->count))
                return false;
        } else if (std::strcmp(option, "--timeout") == 0) {
            if (!args.seconds(option, false, &options->timeout_s))
                return false;
        } else {
            return args.fail(std::string("listen: unknown argument ") + option);
        }
    }
    if (options->as == 0)
        return args.fail("listen needs --as");
    return true;
}

bool parse_peer(argument_reader& args, bus_options* options)
{
    while (!args.done()) {
        const char* option = args.take();
        if (is_help(option)) {
            options->command = bus_command::help;
            return true;
        }
        if (std::strcmp(option, "--as") == 0) {
            if (!args.module(option, &options->as))
                return false;
        } else if (std::strcmp(option, "--to") == 0) {
            if (!args.module(option, &options->to))
                return false;
        } else if (std::strcmp(option, "--linger") == 0) {
            if (!args.seconds(option, true, &options->linger_s))
                return false;
        } else {
            return args.fail(std::string("peer: unknown argument ") + option);
        }
    }
    if (options->as == 0 || options->to == 0)
        return args.fail("peer needs --as and --to");
    return true;
}

}  // namespace

bool parse_options(int argc, char** argv, bus_options* options, std::string* error)
{
    *options = bus_options();
    argument_reader args(argc, argv, error);
    if (args.done())
        return args.fail("no command given");
    const char* command = args.take();
    if (is_help(command)) {
        options->command = bus_command::help;
        return args.done() || args.fail("--help takes no arguments");
    }
    if (std::strcmp(command, "send") == 0) {
        options->command = bus_command::send;
        return parse_send(args, options);
    }
    if (std::strcmp(command, "listen") == 0) {
        options->command = bus_command::listen;
        return parse_listen(args, options);
    }
    if (std::strcmp(command, "peer") == 0) {
        options->command = bus_command::peer;
        return parse_peer(args, options);
    }
    if (std::strcmp(command, "help") == 0 && args.done()) {
        options->command = bus_command::help;
        return true;
    }
    return args.fail(std::string("unknown command ") + command);
}

void print_usage(FILE* out, bool full)
{
    std::fputs("usage: orvd-bus send --to M [--as N] (--text TEXT | --file FILE | --stdin)\n"
               "       orvd-bus listen --as N [--escaped] [--count K] [--timeout SECONDS]\n"
               "       orvd-bus peer --as N --to M [--linger SECONDS]\n"
               "       orvd-bus --help\n",
               out);
    if (!full)
        return;
    std::fputs("\n"
               "Joins the device message bus under $ORVD_ROOT/run/msgbus (the device's own bus when\n"
               "ORVD_ROOT is unset).\n"
               "\n"
               "  send    sends one message to module M: the text, the file's bytes or all of standard\n"
               "          input; registered as module N for the send with --as, else unregistered.\n"
               "          Status 1 when the message cannot be delivered.\n"
               "  listen  registers as module N and prints every payload received, followed by a\n"
               "          newline (--escaped: one escaped line per message). Ends after K messages,\n"
               "          after the timeout, or on SIGTERM/SIGINT. Status 1 when N is taken.\n"
               "  peer    registers as module N; every line of standard input is unescaped and sent to\n"
               "          M, every message received is printed as one escaped line. Ends at the end of\n"
               "          the input once nothing has arrived for --linger seconds (default 1), or on\n"
               "          SIGTERM/SIGINT.\n"
               "\n"
               "Escaped line: bytes 0x20-0x7e stand for themselves except \\, written \\\\; \\n, \\r, \\t;\n"
               "any other byte is \\xHH (lowercase hex). The empty line is the empty message.\n"
               "Bad arguments or a malformed escaped line: status 2.\n",
               out);
}
