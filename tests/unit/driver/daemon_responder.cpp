// daemon_responder: stands in for networkd or configd in the driver's request tests.
//
//   daemon_responder --module N (--reply TEXT... | --reply-ok | --silent) [--record FILE]
//                    [--max-ms MS]
//
// Registers on the bus (below ORVD_ROOT) as module N and prints "ready" once it receives.
// Every request's payload is appended to FILE as one line before anything is answered, so a
// test that has its reply can read the line. --reply answers a request with TEXT as it is;
// given several times, the n-th request gets the n-th text and the last text repeats.
// --reply-ok answers {"command": "C", ...} with {"command":"C-response","status":"ok"};
// --silent never answers. Ends after --max-ms (default 20000) or when its parent dies.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "cfg_tree.h"
#include "msgbus.h"
#include "vorna_log.h"

namespace {

struct responder_options {
    int module = 0;
    std::vector<std::string> replies;
    bool reply_ok = false;
    bool silent = false;
    std::string record;
    long max_ms = 20000;
};

int usage()
{
    std::fprintf(stderr, "usage: daemon_responder --module N (--reply TEXT... | --reply-ok | --silent) "
                         "[--record FILE] [--max-ms MS]\n");
    return 64;
}

bool parse(int argc, char** argv, responder_options* options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const bool has_value = i + 1 < argc;
        if (argument == "--module" && has_value) {
            options->module = std::atoi(argv[++i]);
        } else if (argument == "--reply" && has_value) {
            options->replies.push_back(argv[++i]);
        } else if (argument == "--reply-ok") {
            options->reply_ok = true;
        } else if (argument == "--silent") {
            options->silent = true;
        } else if (argument == "--record" && has_value) {
            options->record = argv[++i];
        } else if (argument == "--max-ms" && has_value) {
            options->max_ms = std::atol(argv[++i]);
        } else {
            return false;
        }
    }
    const int roles = int(!options->replies.empty()) + int(options->reply_ok) + int(options->silent);
    return options->module > 0 && roles == 1;
}

// One write per line on an O_APPEND descriptor, so a reader never sees half a line.
void record_line(int fd, const message_s* request)
{
    if (fd < 0)
        return;
    std::string line(request->payload, request->length);
    line += '\n';
    if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        std::fprintf(stderr, "daemon_responder: cannot record a request\n");
}

std::string ok_reply_to(const message_s* request)
{
    cfg_t* tree = cfg_parse_buffer(request->payload);
    const char* command = cfg_get_value(cfg_get_param(tree, "command"));
    std::string command_text = command != nullptr ? command : "";
    cfg_release(tree);
    cfg_t* reply = cfg_get_empty();
    cfg_set_param(reply, "command", (command_text + "-response").c_str());
    cfg_set_param(reply, "status", "ok");
    char* text = cfg_serialize_compact(reply);
    std::string result = text != nullptr ? text : "";
    std::free(text);
    cfg_release(reply);
    return result;
}

void answer(const responder_options& options, const message_s* request, size_t number)
{
    if (options.silent || request->source == 0)
        return;
    const std::string text = options.reply_ok ? ok_reply_to(request)
                                              : options.replies[std::min(number, options.replies.size() - 1)];
    if (MsgSend(text.data(), request->source, static_cast<unsigned>(text.size())) != 0)
        std::fprintf(stderr, "daemon_responder: cannot answer module %d\n", request->source);
}

}  // namespace

int main(int argc, char** argv)
{
    // End together with the test that started this process, however it ends.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);

    responder_options options;
    if (!parse(argc, argv, &options))
        return usage();
    vorna_log_set_daemonname("daemon_responder");
    const auto end_of_life = std::chrono::steady_clock::now() + std::chrono::milliseconds(options.max_ms);

    int record_fd = -1;
    if (!options.record.empty()) {
        record_fd = ::open(options.record.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (record_fd < 0)
            return 5;
    }
    if (InitLibParams(options.module, nullptr, 0) != 0 || ModulePeerStart() != 0) {
        std::printf("taken\n");
        return 3;
    }
    std::printf("ready\n");
    std::fflush(stdout);

    size_t answered = 0;
    while (std::chrono::steady_clock::now() < end_of_life) {
        message_s* request = GetMsgFromQueueNoWait();
        if (request == nullptr) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        record_line(record_fd, request);
        answer(options, request, answered++);
        std::free(request);
    }
    FreeLibParams();
    if (record_fd >= 0)
        ::close(record_fd);
    return 0;
}
