#include "transport/websock_worker.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/free_memory.h"
#include "core/json_reader.h"
#include "core/json_writer.h"
#include "core/trace.h"
#include "core/run_flags.h"
#include "core/websock_cfg.h"

namespace {

struct service_kind_t {
    const char* name;  // worker name and WebSocket protocol name
    const char* log_prefix;
};

// The roaming service logs its library lines as "portal->", by design.
const service_kind_t service_kinds[] = {
    {"websock-roaming", "portal->libwebsocket-debug> %d: %s"},
    {"websock-rrm", "rrm->libwebsocket-debug> %d: %s"},
    {"websock-wids", "wids->libwebsocket-debug> %d: %s"},
};
constexpr int service_kind_count = 3;

// Every library log class except notices.
constexpr int library_log_classes = 1019;
// Pings go out every 30 s; a link that has written nothing for 60 s is dropped.
constexpr long ping_interval_s = 30;
constexpr int ping_timer_id = 0;
constexpr int ping_timeout_s = 60;
constexpr int max_missed_pongs = 3;
// The library's service call waits until its next event; this tick bounds the wait so that
// the worker's timers and clock check run at least every 100 ms.
constexpr lws_usec_t service_tick_us = 100 * LWS_US_PER_MS;

using callback_slot_t = std::function<int(lws*, lws_callback_reasons, void*, void*, size_t)>;
// One slot per service type: the library calls a plain function, which forwards to the worker
// of its type. A second worker of the same type takes the slot over.
callback_slot_t callback_slots[service_kind_count];

template <int type>
int callback_trampoline(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len)
{
    if (!callback_slots[type])
        return 0;
    return callback_slots[type](wsi, reason, user, in, len);
}

template <int type>
void library_log_hook(int level, const char* line)
{
    trace.debug(service_kinds[type].log_prefix, level, line);
}

lws_callback_function* const trampolines[] = {callback_trampoline<0>, callback_trampoline<1>,
                                               callback_trampoline<2>};
void (*const log_hooks[])(int, const char*) = {library_log_hook<0>, library_log_hook<1>, library_log_hook<2>};

bool has_word(const char* text, size_t length, const char* word, bool any_case)
{
    const char* end = text + length;
    const size_t word_length = strlen(word);
    auto same = [any_case](char a, char b) {
        return any_case ? tolower(static_cast<unsigned char>(a)) == tolower(static_cast<unsigned char>(b)) : a == b;
    };
    return std::search(text, end, word, word + word_length, same) != end;
}

// Whether a message can be internal or carry the time-zone command. Parsing a report of
// several megabytes into a tree only to find it is neither would take ten times its size. The
// words can only be written out or with \u escapes, so a text with neither word and no \u
// escape cannot be either; any other text is parsed as always.
bool may_concern_this_worker(const buffer_info_t& message)
{
    if (message.data == nullptr)
        return true;
    const char* text = message.data;
    return has_word(text, message.size, "\\u", false) || has_word(text, message.size, "internal-ipc", true) ||
           has_word(text, message.size, "update-timezone", false);
}

}  // namespace

// The scheduler entry of the service tick and the worker it belongs to.
struct websock_service_tick_s {
    lws_sorted_usec_list_t sul;
    websock_worker* owner;
};

websock_worker::websock_worker(safe_queue& to_server_queue, safe_queue& from_server_queue,
                               const char* server_host, const char* server_path, int server_port,
                               const volatile bool& run_flag, unsigned int initial_connection_delay,
                               unsigned int max_connection_delay, ws_service_type type)
    : abstract_worker(run_flag,
                      type == WS_SERVICE_ROAMING ? service_kinds[0].name
                      : type == WS_SERVICE_RRM   ? service_kinds[1].name
                                                 : service_kinds[2].name,
                      100000, 1000000),
      service_name(get_name().c_str()), service_type(type), to_server(to_server_queue),
      from_server(from_server_queue), lws_ctx(nullptr), lws_callback_fn(nullptr), lws_log_fn(nullptr),
      host(server_host != nullptr ? server_host : ""), path(server_path != nullptr ? server_path : ""),
      port(server_port), rx_buffer(), rx_discarding(false), tx_offset(0),
      missed_pongs(0), alive(false),
      established(false), closed(false), unlinked(false), last_ping_time{},
      ping_timeout_cb([this] { ping_timeout(); }), current_delay(initial_connection_delay),
      initial_delay(initial_connection_delay), max_delay(max_connection_delay), context_info{},
      connect_info{}, protocols{}, client_wsi(nullptr), tick(std::make_unique<websock_service_tick_s>())
{
    trace.set_log_level(orvd_log_level);
    tick->owner = this;
    // Another value leaves the worker without a protocol: it can never connect.
    if (static_cast<int>(type) < 0 || static_cast<int>(type) >= service_kind_count)
        return;
    service_name = service_kinds[type].name;
    lws_callback_fn = trampolines[type];
    lws_log_fn = log_hooks[type];
    callback_slots[type] = [this](lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len) {
        return worker_lws_callback(wsi, reason, user, in, len);
    };
}

websock_worker::~websock_worker()
{
    disconnect();
    if (lws_callback_fn != nullptr)
        callback_slots[service_type] = nullptr;
}

bool websock_worker::condition(const volatile bool& run_flag)
{
    return read_run_flag(run_flag) && alive;
}

bool websock_worker::__connect()
{
    timers.process_once();
    notify_disconnected();
    delay_loop();
    return _connect() != 0;
}

bool websock_worker::execute()
{
    // The service call waits until socket I/O, a producer's wake-up or the 100 ms tick. That
    // wait is the round's idle pause: the loop adds none of its own, so a message read or
    // queued never waits out a sleep, and an idle link still wakes only every 100 ms.
    lws_service(lws_ctx, 100);
    timers.process_once();
    request_writable_when_due();
    return false;
}

void websock_worker::request_writable_when_due()
{
    if (!established.load(std::memory_order_relaxed) || client_wsi == nullptr)
        return;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    // Writable callbacks are asked for only while there is something to write, so the ping
    // has to ask for its own.
    if (now.tv_sec - last_ping_time.tv_sec >= ping_interval_s || has_more_to_write())
        lws_callback_on_writable(client_wsi);
}

bool websock_worker::has_more_to_write()
{
    return tx_message != nullptr || !to_server.empty();
}

void websock_worker::__disconnect()
{
    trace.info("%s->Stopping\n", service_name);
    // No producer may touch the connection once the context is gone.
    to_server.replace_notifier([] {});
    notify_disconnected();
    established = false;
    timers.del_timer(ping_timer_id);
    destroy_context();
    client_wsi = nullptr;
    // What was half sent or half received belongs to the lost link: it is gone, like a
    // message that failed to be written.
    const bool held_large = tx_message != nullptr || rx_buffer.size() > send_fragment_size;
    tx_message.reset();
    tx_offset = 0;
    rx_buffer.clear();
    rx_discarding = false;
    if (held_large)
        return_free_memory();
}

void websock_worker::destroy_context()
{
    if (lws_ctx == nullptr)
        return;
    // The tick lives in this worker, not in the context: take it off the context's schedule
    // first, or the next context would unlink it from a freed list.
    lws_sul_cancel(&tick->sul);
    lws_context_destroy(lws_ctx);
    lws_ctx = nullptr;
}

int websock_worker::_connect()
{
    if (unlinked || lws_callback_fn == nullptr)
        return 0;

    memset(&context_info, 0, sizeof(context_info));
    memset(&connect_info, 0, sizeof(connect_info));
    memset(protocols, 0, sizeof(protocols));
    protocols[0].name = service_name;
    protocols[0].callback = lws_callback_fn;
    protocols[0].user = this;
    // One send() may carry a whole fragment; the library buffers what the socket does not take.
    protocols[0].tx_packet_size = send_fragment_size;
    alive = true;

    context_info.port = CONTEXT_PORT_NO_LISTEN;
    context_info.protocols = protocols;
    context_info.gid = -1;
    context_info.uid = -1;
    lws_set_log_level(library_log_classes, lws_log_fn);
    lws_ctx = lws_create_context(&context_info);
    if (lws_ctx == nullptr) {
        trace.error("%s->Creating libwebsocket context failed\n", service_name);
        return 0;
    }
    tick->sul = lws_sorted_usec_list_t{};
    arm_service_tick();

    connect_info.context = lws_ctx;
    connect_info.address = host.c_str();
    connect_info.port = port;
    connect_info.ssl_connection = 0;  // always plain ws
    connect_info.path = path.c_str();
    connect_info.host = host.c_str();
    connect_info.origin = host.c_str();
    connect_info.protocol = service_name;
    connect_info.ietf_version_or_minus_one = -1;
    trace.info("%s-> %s: Try to establish connect with server %s:%d%s\n", service_name, "_connect", host.c_str(),
               port, path.c_str());
    client_wsi = lws_client_connect_via_info(&connect_info);
    if (client_wsi != nullptr) {
        trace.info("%s->Connected\n", service_name);
        return 1;
    }
    destroy_context();
    return 0;
}

void websock_worker::arm_service_tick()
{
    lws_sul_schedule(lws_ctx, 0, &tick->sul, service_tick_cb, service_tick_us);
}

void websock_worker::service_tick_cb(lws_sorted_usec_list_t* sul)
{
    websock_service_tick_s* owner_tick = lws_container_of(sul, websock_service_tick_s, sul);
    owner_tick->owner->arm_service_tick();
}

unsigned int websock_worker::get_connect_delay()
{
    const unsigned int base_on_entry = current_delay;
    // The base doubles for the next attempt, up to the maximum; this attempt uses the base it
    // found, so the first delay comes from the initial value itself.
    const uint64_t doubled = static_cast<uint64_t>(current_delay == 0 ? 1 : current_delay) * 2;
    current_delay = max_delay < doubled ? max_delay : static_cast<unsigned int>(doubled);

    const unsigned int base = base_on_entry == 0 ? 2 : base_on_entry;
    const unsigned int half = base / 2;
    trace.debug("Generate delay into [%u;%u) range\n", half, half + base);
    return static_cast<unsigned int>(rand()) % base + half;
}

void websock_worker::delay_loop()
{
    const unsigned int delay = get_connect_delay();
    trace.info("Delay before connection: %d sec\n", static_cast<int>(delay));
    timers.delay_with_periodic(static_cast<int>(delay), [this] { return delay_with_periodic_cb(); });
}

bool websock_worker::delay_with_periodic_cb()
{
    if (!read_run_flag(run))
        return false;
    to_server.dequeue([this](const std::shared_ptr<buffer_info_t>& message) { delay_loop_dequeue_cb(message); });
    return true;
}

void websock_worker::delay_loop_dequeue_cb(const std::shared_ptr<buffer_info_t>& message)
{
    trace.debug("%s->From queue\n", service_name);
    message->dump();
    // What is not internal is dropped: stale reports must not reach the server after a
    // reconnect.
    process_internal_message(message);
}

int websock_worker::worker_lws_callback(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len)
{
    if (missed_pongs >= max_missed_pongs) {
        trace.warn("%s->There are no %d pong answer in a row from server\n", service_name, missed_pongs);
        missed_pongs = 0;
        alive = false;
    }

    switch (reason) {
    case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
        if (wsi == client_wsi)
            client_wsi = nullptr;
        process_client_connection_error();
        break;
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
        process_client_established(wsi);
        break;
    case LWS_CALLBACK_CLOSED:
    case LWS_CALLBACK_CLOSED_HTTP:
    case LWS_CALLBACK_CLIENT_CLOSED:  // how this library version reports a closed client link
        process_closed();
        break;
    case LWS_CALLBACK_CLIENT_RECEIVE:
        process_client_receive(wsi, user, in, len);
        break;
    case LWS_CALLBACK_CLIENT_RECEIVE_PONG:
        process_client_receive_pong();
        break;
    case LWS_CALLBACK_CLIENT_WRITEABLE:
        process_client_writeable(wsi);
        break;
    case LWS_CALLBACK_PROTOCOL_DESTROY:
        process_protocol_destroy();
        break;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
        process_event_wait_cancelled();
        break;
    case LWS_CALLBACK_WSI_DESTROY:
        if (wsi == client_wsi)
            client_wsi = nullptr;
        break;
    default:
        break;
    }
    return 0;
}

void websock_worker::process_client_connection_error()
{
    trace.debug("%s->%s:%d\n", service_name, "process_client_connection_error", __LINE__);
    alive = false;
    closed = true;
}

void websock_worker::process_client_established(lws* wsi)
{
    trace.debug("%s->%s:%d\n", service_name, "process_client_established", __LINE__);
    established = true;
    // Producers wake the service loop; the loop then asks for the writable callback itself,
    // since only lws_cancel_service may be called from another thread.
    lws_context* context = lws_ctx;
    to_server.replace_notifier([this, context] {
        if (established.load(std::memory_order_relaxed))
            lws_cancel_service(context);
    });
    current_delay = initial_delay;
    trace.info("Connection established - reset connection delay\n");
    notify_connected();
    clock_gettime(CLOCK_MONOTONIC, &last_ping_time);
    lws_callback_on_writable(wsi);
    timers.del_timer(ping_timer_id);
    timers.add_timer(ping_timeout_cb, ping_timer_id, ping_timeout_s);
}

void websock_worker::process_event_wait_cancelled()
{
    if (established.load(std::memory_order_relaxed) && client_wsi != nullptr)
        lws_callback_on_writable(client_wsi);
}

void websock_worker::process_closed()
{
    trace.debug("%s->%s:%d\n", service_name, "process_closed", __LINE__);
    alive = false;
    closed = true;
}

void websock_worker::process_protocol_destroy()
{
    trace.debug("%s->%s:%d\n", service_name, "process_protocol_destroy", __LINE__);
    closed = true;
}

void websock_worker::process_client_receive_pong()
{
    trace.debug("%s->%s:%d\n", service_name, "process_client_receive_pong", __LINE__);
    missed_pongs = 0;
}

void websock_worker::process_client_writeable(lws* wsi)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long since_ping = now.tv_sec - last_ping_time.tv_sec;
    if (established.load(std::memory_order_relaxed) && since_ping >= ping_interval_s) {
        trace.debug("%s->%s: It's time to ping websocket server, expired [%u]\n", service_name,
                    "process_client_writeable", static_cast<unsigned>(since_ping));
        last_ping_time = now;
        if (lws_send(wsi, nullptr, 0, LWS_WRITE_PING) > 0)
            ++missed_pongs;
        lws_callback_on_writable(wsi);
        timers.del_timer(ping_timer_id);
        timers.add_timer(ping_timeout_cb, ping_timer_id, ping_timeout_s);
    }

    if (tx_message != nullptr)
        send_next_fragment(wsi);
    else
        to_server.dequeue([this, wsi](const std::shared_ptr<buffer_info_t>& message) {
            process_client_writeable_dequeue_cb(wsi, message);
        });
    // One message, or one fragment of a long one, per callback; the next callback is asked
    // for only while more is waiting, so an idle link does not spin.
    if (has_more_to_write())
        lws_callback_on_writable(wsi);
}

void websock_worker::process_client_writeable_dequeue_cb(lws* wsi, const std::shared_ptr<buffer_info_t>& message)
{
    trace.debug("%s->From queue\n", service_name);
    message->dump();
    if (process_internal_message(message) != 0)
        return;
    if (message->size <= send_fragment_size) {
        lws_send(wsi, message->data, static_cast<int>(message->size), LWS_WRITE_TEXT);
        return;
    }
    tx_message = message;
    tx_offset = 0;
    send_next_fragment(wsi);
}

void websock_worker::send_next_fragment(lws* wsi)
{
    const uint32_t left = tx_message->size - tx_offset;
    const uint32_t piece = left < send_fragment_size ? left : send_fragment_size;
    const bool first = tx_offset == 0;
    const bool last = piece == left;
    const auto type = static_cast<lws_write_protocol>(lws_write_ws_flags(LWS_WRITE_TEXT, first, last));
    const int written = lws_send(wsi, tx_message->data + tx_offset, static_cast<int>(piece), type);
    tx_offset += piece;
    if (written >= 0 && !last)
        return;
    // Sent, or gone with a failed write like any message: either way its memory goes back.
    tx_message.reset();
    tx_offset = 0;
    return_free_memory();
}

int websock_worker::lws_send(lws* wsi, char* data, int len, lws_write_protocol type) const
{
    auto* frame = static_cast<unsigned char*>(malloc(static_cast<size_t>(len) + LWS_PRE));
    if (frame == nullptr)
        return -1;
    if (data != nullptr)
        memcpy(frame + LWS_PRE, data, static_cast<size_t>(len));
    const int written = lws_write(wsi, frame + LWS_PRE, static_cast<size_t>(len), type);
    if (written < 0)
        trace.error("%s->%s:Can't send msg type [%d] to websocket\n", service_name, "lws_send", type);
    else
        trace.info("%s->%s:Send msg type [%d] len [%d/%d]  to websocket\n", service_name, "lws_send", type,
                   written, len);
    free(frame);
    return written;
}

int websock_worker::process_client_receive(lws* wsi, void*, void* in, size_t len)
{
    trace.debug("%s->%s:%d\n", service_name, "process_client_receive", __LINE__);
    return process_client_receive_fragment(in, len, lws_is_final_fragment(wsi) != 0,
                                           lws_remaining_packet_payload(wsi));
}

int websock_worker::process_client_receive_fragment(void* in, size_t len, bool is_final, size_t remaining)
{
    const bool ends_message = is_final && remaining == 0;
    if (rx_discarding || rx_buffer.size() + static_cast<uint64_t>(len) > max_received_message) {
        if (!rx_discarding) {
            trace.error("%s->%s: message longer than %u bytes dropped\n", service_name, "process_client_receive",
                        max_received_message);
            rx_buffer.clear();
            rx_discarding = true;
            return_free_memory();
        }
        // The rest of the message is skipped; the link and the next message are kept.
        if (ends_message)
            rx_discarding = false;
        return ends_message ? -1 : 0;
    }
    if (!ends_message) {
        trace.debug("%s->%s: Get incomplete packet, beginning len %d, remaining len %d\n", service_name,
                    "process_client_receive", static_cast<int>(len), static_cast<int>(remaining));
        // A failed append is not acted on here: the message is dropped when it ends.
        if (in != nullptr)
            rx_buffer.append(static_cast<const char*>(in), len);
        return 0;
    }
    if (in == nullptr) {
        trace.error("%s: Bad Input data\n", "process_client_receive");
        return -1;
    }
    // Fails when the memory could not be had, and also for an empty message.
    rx_buffer.append(static_cast<const char*>(in), len);
    std::shared_ptr<buffer_info_t> message =
        !rx_buffer.fail() && rx_buffer.size() > 0 ? rx_buffer.release() : nullptr;
    if (message == nullptr) {
        trace.error("%s->%s: can't receive message\n", service_name, "process_client_receive");
        rx_buffer.clear();
        return -1;
    }
    trace.debug("%s->%s: Recieve final msg len %d from websocket\n", service_name, "process_client_receive",
                static_cast<int>(message->size));
    trace.debug("%s->Send to Queue\n", service_name);
    message->dump();
    from_server.enqueue(message);
    return 0;
}

void websock_worker::post_internal(const char* cmd) const
{
    json_writer message("internal-ipc", cmd, "", "2.2");
    from_server.enqueue_json(message);
}

void websock_worker::notify_connected() const
{
    post_internal("connected");
}

void websock_worker::notify_disconnected() const
{
    post_internal("disconnected");
}

int websock_worker::process_internal_message(const std::shared_ptr<buffer_info_t>& message)
{
    if (!may_concern_this_worker(*message))
        return 0;
    json_reader reader(static_cast<const char*>(message->data));
    if (reader.fail())
        return 0;  // not internal: sent to the server as it is
    const char* command = reader.get_string("command");
    if (command != nullptr && strcmp(command, "update-timezone") == 0)
        tzset();
    const char* service = reader.get_string("service");
    if (service == nullptr || strcasecmp(service, "internal-ipc") != 0)
        return 0;
    const char* cmd = reader.get_string("cmd");
    if (cmd != nullptr && strcasecmp(cmd, "status") == 0) {
        if (established.load(std::memory_order_relaxed))
            notify_connected();
        else
            notify_disconnected();
    } else if (cmd != nullptr && strcasecmp(cmd, "unlink") == 0) {
        process_internal_unlink();
    }
    return 1;
}

void websock_worker::process_internal_unlink()
{
    alive = false;
    closed = true;
    unlinked = true;
}

void websock_worker::ping_timeout()
{
    trace.warn("%s->%s:%d\n", service_name, "ping_timeout", __LINE__);
    // Leaves the connection: the worker loop disconnects and connects again.
    abstract_worker::alive = false;
}
