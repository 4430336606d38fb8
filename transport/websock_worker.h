// The one WebSocket client connection of the process: sends what the partner worker queues,
// reassembles what the server sends into whole messages for the partner, pings, and
// reconnects after a randomised, growing delay.
#ifndef ORVD_TRANSPORT_WEBSOCK_WORKER_H
#define ORVD_TRANSPORT_WEBSOCK_WORKER_H

#include <libwebsockets.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include "core/abstract_worker.h"
#include "core/buffer_info.h"
#include "core/growing_buffer.h"
#include "core/safe_queue.h"

enum ws_service_type {
    WS_SERVICE_ROAMING = 0,
    WS_SERVICE_RRM = 1,
    WS_SERVICE_WIDS = 2,
};

class websock_worker : public abstract_worker {
public:
    websock_worker(safe_queue& to_server, safe_queue& from_server, const char* host, const char* path,
                   int port, const volatile bool& run, unsigned int initial_connection_delay,
                   unsigned int max_connection_delay, ws_service_type type);
    ~websock_worker() override;

    // The protocol callback, reached through the trampoline of this worker's type.
    int worker_lws_callback(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len);
    int lws_send(lws* wsi, char* data, int len, lws_write_protocol type) const;
    void notify_connected() const;
    void notify_disconnected() const;
    // 1 when the message was internal and has been consumed.
    int process_internal_message(const std::shared_ptr<buffer_info_t>& message);
    // The next reconnect delay in seconds; grows the base for the attempt after.
    unsigned int get_connect_delay();
    // One received piece of a message, as the library reports it.
    int process_client_receive_fragment(void* in, size_t len, bool is_final, size_t remaining);

    // The longest message taken from the service: the largest the protocol sends (a
    // fast-transition document for 33 VAPs of 1,025 peers each, about 7 MB compact and at
    // most about 13 MB with long escaped key-holder texts) passes; a longer one is dropped
    // so that a broken service cannot exhaust a router's memory.
    static constexpr uint32_t max_received_message = 16u * 1024 * 1024;
    // A longer outgoing message goes out as fragments of this size, so that pings can be
    // sent between them and no more than one fragment is ever copied or buffered.
    static constexpr uint32_t send_fragment_size = 64u * 1024;

    const char* get_service_name() const { return service_name; }
    bool is_established() const { return established.load(std::memory_order_relaxed); }
    bool is_unlinked() const { return unlinked; }

protected:
    bool __connect() override;
    bool execute() override;
    void __disconnect() override;
    bool condition(const volatile bool& run) override;

private:
    int _connect();
    void destroy_context();
    void delay_loop();
    bool delay_with_periodic_cb();
    void delay_loop_dequeue_cb(const std::shared_ptr<buffer_info_t>& message);

    void process_client_connection_error();
    void process_client_established(lws* wsi);
    void process_closed();
    int process_client_receive(lws* wsi, void* user, void* in, size_t len);
    void process_client_receive_pong();
    void process_client_writeable(lws* wsi);
    void process_client_writeable_dequeue_cb(lws* wsi, const std::shared_ptr<buffer_info_t>& message);
    void send_next_fragment(lws* wsi);
    bool has_more_to_write();
    void request_writable_when_due();
    void process_protocol_destroy();
    void process_event_wait_cancelled();
    void process_internal_unlink();
    void ping_timeout();
    void ipc_notifier();
    void post_internal(const char* cmd) const;
    void arm_service_tick();
    static void service_tick_cb(lws_sorted_usec_list_t* sul);
    friend struct websock_service_tick_s;

    const char* service_name;
    ws_service_type service_type;
    safe_queue& to_server;
    safe_queue& from_server;
    lws_context* lws_ctx;
    lws_callback_function* lws_callback_fn;
    void (*lws_log_fn)(int level, const char* line);
    std::string host;
    std::string path;
    int port;
    // The message being reassembled, handed to the partner as a buffer_info_t when whole.
    growing_buffer rx_buffer;
    // Set while the rest of a message that grew past max_received_message is skipped.
    bool rx_discarding;
    // The message being sent in fragments, and how much of it has gone out.
    std::shared_ptr<buffer_info_t> tx_message;
    uint32_t tx_offset;
    int missed_pongs;
    // The link may keep running; condition() reports it. (The base's own `alive` is the
    // result of the last connect.)
    bool alive;
    // Read by the partner's thread in the enqueue notifier.
    std::atomic<bool> established;
    bool closed;
    bool unlinked;
    timespec last_ping_time;
    std::function<void()> ping_timeout_cb;
    unsigned int current_delay;
    unsigned int initial_delay;
    unsigned int max_delay;
    lws_context_creation_info context_info;
    lws_client_connect_info connect_info;
    lws_protocols protocols[2];
    // The client connection; null until the attempt starts and after it is closed.
    lws* client_wsi;
    // Bounds each service wait so the worker's timers and clock check keep running.
    std::unique_ptr<struct websock_service_tick_s> tick;
};

#endif
