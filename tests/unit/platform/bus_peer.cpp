// bus_peer: the second process of the message-bus tests. It uses the bus library exactly as a
// daemon would, in one of these roles:
//
//   bus_peer --module N --echo [--noise]
//       registers as module N and answers every message. A configuration-tree request
//       {"command": "C", ...} gets the tree back with "command" set to "C-response" and
//       "status": "ok" added; any other payload is sent back byte for byte. With --noise an
//       unrelated {"command": "noise"} message goes out before each answer.
//   bus_peer --module N --silent
//       registers as module N, receives and never answers.
//   bus_peer --module N --receive-count K --out FILE
//       registers, receives K messages and writes the payload of each to FILE (K = 1) or
//       FILE.0, FILE.1, ...; exits 0, or 2 when they do not all come in time.
//   bus_peer [--module N] --send-to M --file FILE
//       sends the bytes of FILE to module M (as module N when given, else unregistered);
//       exits 0, or 1 when MsgSend fails.
//   bus_peer --module N --try-register
//       exits 0 when module N could be registered, 3 when not.
//
// Roles that register print "ready" on standard output once the peer runs; a registration
// that fails prints "taken" and exits 3. The process ends by itself after --max-ms
// (default 20000) and when its parent dies, so a failed test never leaves it behind.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include <sys/prctl.h>
#include <unistd.h>

#include "cfg_tree.h"
#include "msgbus.h"
#include "test_support.h"
#include "vorna_log.h"

namespace {

struct peer_options {
    int module = 0;
    bool echo = false;
    bool noise = false;
    bool silent = false;
    bool try_register = false;
    int receive_count = 0;
    std::string out;
    int send_to = 0;
    std::string file;
    long max_ms = 20000;
};

int usage()
{
    std::fprintf(stderr, "usage: bus_peer [--module N] (--echo [--noise] | --silent | "
                         "--receive-count K --out FILE | --send-to M --file FILE | "
                         "--try-register) [--max-ms MS]\n");
    return 64;
}

bool parse(int argc, char** argv, peer_options* options)
{
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        auto next = [&](std::string* value) {
            if (i + 1 >= argc)
                return false;
            *value = argv[++i];
            return true;
        };
        std::string value;
        if (argument == "--module" && next(&value)) {
            options->module = std::atoi(value.c_str());
        } else if (argument == "--echo") {
            options->echo = true;
        } else if (argument == "--noise") {
            options->noise = true;
        } else if (argument == "--silent") {
            options->silent = true;
        } else if (argument == "--try-register") {
            options->try_register = true;
        } else if (argument == "--receive-count" && next(&value)) {
            options->receive_count = std::atoi(value.c_str());
        } else if (argument == "--out" && next(&value)) {
            options->out = value;
        } else if (argument == "--send-to" && next(&value)) {
            options->send_to = std::atoi(value.c_str());
        } else if (argument == "--file" && next(&value)) {
            options->file = value;
        } else if (argument == "--max-ms" && next(&value)) {
            options->max_ms = std::atol(value.c_str());
        } else {
            return false;
        }
    }
    return true;
}

// Through a temporary file, so that the test never reads a half-written one.
bool write_all(const std::string& path, const char* data, size_t length)
{
    std::string partial = path + ".part";
    {
        std::ofstream out(partial, std::ios::binary | std::ios::trunc);
        out.write(data, static_cast<std::streamsize>(length));
        if (!out.good())
            return false;
    }
    return std::rename(partial.c_str(), path.c_str()) == 0;
}

std::chrono::steady_clock::time_point end_of_life;

bool time_left()
{
    return std::chrono::steady_clock::now() < end_of_life;
}

// The next message, or null when the process's time is up.
message_s* next_message()
{
    while (time_left()) {
        if (message_s* message = GetMsgFromQueueNoWait())
            return message;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return nullptr;
}

void answer(const message_s* request, bool noise)
{
    int to = request->source;
    if (to == 0)
        return;  // an unregistered sender cannot be answered
    if (noise) {
        const char* unrelated = "{\"command\": \"noise\"}";
        MsgSend(unrelated, to, static_cast<unsigned>(std::strlen(unrelated)));
    }
    cfg_t* tree = cfg_parse_buffer(request->payload);
    const char* command = cfg_get_value(cfg_get_param(tree, "command"));
    if (tree == nullptr || command == nullptr) {
        cfg_release(tree);
        MsgSend(request->payload, to, request->length);
        return;
    }
    std::string response = std::string(command) + "-response";
    cfg_set_param(tree, "command", response.c_str());
    cfg_set_param(tree, "status", "ok");
    char* text = cfg_serialize_compact(tree);
    if (text != nullptr)
        MsgSend(text, to, static_cast<unsigned>(std::strlen(text)));
    std::free(text);
    cfg_release(tree);
}

int serve(const peer_options& options)
{
    if (InitLibParams(options.module, nullptr, 0) != 0) {
        std::printf("taken\n");
        std::fflush(stdout);
        return 3;
    }
    if (options.try_register) {
        FreeLibParams();
        return 0;
    }
    if (ModulePeerStart() != 0)
        return 4;
    std::printf("ready\n");
    std::fflush(stdout);

    int result = 0;
    if (options.receive_count > 0) {
        for (int i = 0; i < options.receive_count; ++i) {
            message_s* message = next_message();
            if (message == nullptr) {
                result = 2;
                break;
            }
            std::string path =
                options.receive_count == 1 ? options.out : options.out + "." + std::to_string(i);
            bool written = write_all(path, message->payload, message->length);
            std::free(message);
            if (!written) {
                result = 5;
                break;
            }
        }
    } else {
        while (message_s* message = next_message()) {
            if (options.echo)
                answer(message, options.noise);
            std::free(message);
        }
    }
    FreeLibParams();
    return result;
}

int send_file(const peer_options& options)
{
    std::string content;
    if (!platform_test::read_file(options.file, &content))
        return 6;
    if (options.module != 0 && InitLibParams(options.module, nullptr, 0) != 0)
        return 3;
    int result = MsgSend(content.data(), options.send_to, static_cast<unsigned>(content.size()));
    if (options.module != 0)
        FreeLibParams();
    return result == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    // End together with the test that started this process, however it ends.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);

    peer_options options;
    if (!parse(argc, argv, &options))
        return usage();
    end_of_life = std::chrono::steady_clock::now() + std::chrono::milliseconds(options.max_ms);
    vorna_log_set_daemonname("bus_peer");

    if (options.send_to != 0)
        return send_file(options);
    if (options.module == 0)
        return usage();
    if (!options.echo && !options.silent && !options.try_register && options.receive_count == 0) {
        return usage();
    }
    if (options.receive_count > 0 && options.out.empty())
        return usage();
    return serve(options);
}
