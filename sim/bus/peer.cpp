// orvd-bus peer: a bus module driven through its standard input and output. One thread turns
// input lines into messages while the main thread prints what arrives, so that neither side
// waits for the other.
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "commands.h"
#include "escape.h"
#include "session.h"

namespace {

using steady = std::chrono::steady_clock;

// How often the input thread looks at the quit flag while standard input is silent.
constexpr int input_poll_ms = 20;
constexpr std::chrono::milliseconds receive_wait(20);

struct peer_state {
    std::atomic<bool> quit{false};         // set by the main thread: stop reading
    std::atomic<bool> input_ended{false};  // end of input, a read error or a malformed line
    std::atomic<int> status{exit_ok};

    void raise_status(int value)
    {
        int current = status.load();
        while (current < value && !status.compare_exchange_weak(current, value)) {
        }
    }
};

class line_sender {
public:
    line_sender(const bus_options& options, peer_state& shared) : to(options.to), state(shared) {}

    void run()
    {
        read_lines();
        state.input_ended.store(true);
    }

private:
    void read_lines()
    {
        std::string pending;
        char chunk[65536];
        while (!state.quit.load()) {
            pollfd input = {STDIN_FILENO, POLLIN, 0};
            const int ready = ::poll(&input, 1, input_poll_ms);
            if (ready < 0 && errno != EINTR) {
                report_read_error();
                return;
            }
            if (ready <= 0)
                continue;
            const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof chunk);
            if (got < 0) {
                if (errno == EINTR || errno == EAGAIN)
                    continue;
                report_read_error();
                return;
            }
            if (got == 0)
                break;
            pending.append(chunk, static_cast<size_t>(got));
            size_t start = 0;
            for (size_t newline; (newline = pending.find('\n', start)) != std::string::npos;
                 start = newline + 1) {
                if (!send_line(std::string_view(pending).substr(start, newline - start)))
                    return;
            }
            pending.erase(0, start);
        }
        // A last line without its newline still counts.
        if (!pending.empty() && !state.quit.load())
            send_line(pending);
    }

    bool send_line(std::string_view line)
    {
        ++line_number;
        std::string error;
        if (!bus_escape::unescape(line, &payload, &error)) {
            std::fprintf(stderr, "orvd-bus: line %lu: %s\n", line_number, error.c_str());
            state.raise_status(exit_bad_input);
            return false;
        }
        if (payload.size() > UINT_MAX ||
            MsgSend(payload.data(), to, static_cast<unsigned>(payload.size())) != 0) {
            std::fprintf(stderr,
                         "orvd-bus: line %lu: module %d is not on the bus (or did not take the message)\n",
                         line_number, to);
            state.raise_status(exit_failed);
        }
        return true;
    }

    void report_read_error()
    {
        std::fprintf(stderr, "orvd-bus: cannot read standard input: %s\n", std::strerror(errno));
        state.raise_status(exit_failed);
    }

    int to;
    peer_state& state;
    unsigned long line_number = 0;
    std::string payload;
};

}  // namespace

int run_peer(const bus_options& options)
{
    bus_membership membership;
    if (!membership.join(options.as, true))
        return exit_failed;
    std::fprintf(stderr, "orvd-bus: listening as module %d, sending to module %d\n", options.as, options.to);

    peer_state state;
    line_sender sender(options, state);
    std::thread input([&sender] { sender.run(); });

    const auto linger =
        std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(options.linger_s));
    bool input_seen_ended = false;
    steady::time_point quiet_since = steady::now();
    for (;;) {
        if (message_ptr message = next_message(steady::now() + receive_wait)) {
            if (!print_message(payload_of(*message), true)) {
                state.raise_status(exit_failed);
                break;
            }
            quiet_since = steady::now();
            continue;
        }
        if (stop_requested() || state.status.load() == exit_bad_input)
            break;
        if (GetModuleLoop() == 0) {
            std::fprintf(stderr, "orvd-bus: module %d stopped receiving\n", options.as);
            state.raise_status(exit_failed);
            break;
        }
        if (state.input_ended.load()) {
            if (!input_seen_ended) {
                input_seen_ended = true;
                quiet_since = steady::now();
            }
            if (steady::now() - quiet_since >= linger)
                break;
        }
    }
    state.quit.store(true);
    input.join();
    return state.status.load();
}
