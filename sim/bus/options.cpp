#include "options.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

namespace {

constexpr long highest_module = 65535;
constexpr double longest_wait_s = 1e6;

// Plain decimal numbers only: no sign, no leading space, nothing after the digits.
template <typename Number, typename Convert>
bool parse_number(const char* text, Convert convert, Number* value)
{
    if (*text == '\0' || *text == '+' || *text == '-' || *text == ' ')
        return false;
    errno = 0;
    char* end = nullptr;
    const Number parsed = convert(text, &end);
    if (errno != 0 || *end != '\0')
        return false;
    *value = parsed;
    return true;
}

bool parse_long(const char* text, long lowest, long highest, long* value)
{
    long parsed = 0;
    const auto decimal = [](const char* digits, char** end) { return std::strtol(digits, end, 10); };
    if (!parse_number(text, decimal, &parsed) || parsed < lowest || parsed > highest)
        return false;
    *value = parsed;
    return true;
}

bool parse_seconds(const char* text, double* value)
{
    double parsed = 0;
    const auto decimal = [](const char* digits, char** end) { return std::strtod(digits, end); };
    if (!parse_number(text, decimal, &parsed) || !std::isfinite(parsed) || parsed < 0 ||
        parsed > longest_wait_s)
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

// One option of a subcommand: its name and what it does with the arguments after it.
struct option_rule {
    const char* name;
    std::function<bool(const char* option)> apply;
};

// What a command line lacks once all of it is read; null when it is complete.
using completeness_check = std::function<const char*()>;

// Reads the options of `command` up to the end of the line, then checks that none it needs is
// missing; "--help" anywhere asks for the usage instead, and ends the reading there.
bool read_options(argument_reader& args, const char* command, const std::vector<option_rule>& rules,
                  const completeness_check& missing, bus_options* options)
{
    while (!args.done()) {
        const char* option = args.take();
        if (is_help(option)) {
            options->command = bus_command::help;
            return true;
        }
        const auto rule = std::find_if(rules.begin(), rules.end(), [option](const option_rule& candidate) {
            return std::strcmp(candidate.name, option) == 0;
        });
        if (rule == rules.end())
            return args.fail(std::string(command) + ": unknown argument " + option);
        if (!rule->apply(option))
            return false;
    }
    const char* problem = missing();
    return problem == nullptr || args.fail(problem);
}

bool parse_send(argument_reader& args, bus_options* options)
{
    int sources = 0;
    // --text, --file and --stdin each name where the payload comes from.
    auto payload_from = [&](payload_source source, std::string* value) {
        return [&args, options, &sources, source, value](const char* option) {
            if (value != nullptr) {
                const char* text = args.value(option);
                if (text == nullptr)
                    return false;
                *value = text;
            }
            options->source = source;
            ++sources;
            return true;
        };
    };
    return read_options(
        args, "send",
        {{"--to", [&](const char* option) { return args.module(option, &options->to); }},
         {"--as", [&](const char* option) { return args.module(option, &options->as); }},
         {"--text", payload_from(payload_source::text, &options->text)},
         {"--file", payload_from(payload_source::file, &options->file)},
         {"--stdin", payload_from(payload_source::standard_input, nullptr)}},
        [&]() -> const char* {
            if (options->to == 0)
                return "send needs --to";
            return sources == 1 ? nullptr : "send needs exactly one of --text, --file and --stdin";
        },
        options);
}

bool parse_listen(argument_reader& args, bus_options* options)
{
    return read_options(
        args, "listen",
        {{"--as", [&](const char* option) { return args.module(option, &options->as); }},
         {"--escaped",
          [&](const char*) {
              options->escaped = true;
              return true;
          }},
         {"--count", [&](const char* option) { return args.count(option, &options->count); }},
         {"--timeout", [&](const char* option) { return args.seconds(option, false, &options->timeout_s); }}},
        [&] { return options->as == 0 ? "listen needs --as" : nullptr; }, options);
}

bool parse_peer(argument_reader& args, bus_options* options)
{
    return read_options(
        args, "peer",
        {{"--as", [&](const char* option) { return args.module(option, &options->as); }},
         {"--to", [&](const char* option) { return args.module(option, &options->to); }},
         {"--linger", [&](const char* option) { return args.seconds(option, true, &options->linger_s); }}},
        [&] { return options->as == 0 || options->to == 0 ? "peer needs --as and --to" : nullptr; }, options);
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
