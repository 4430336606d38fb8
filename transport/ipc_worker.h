// The bus side of WIDS mode: passes messages unchanged between the device message bus and the
// WebSocket worker.
#ifndef ORVD_TRANSPORT_IPC_WORKER_H
#define ORVD_TRANSPORT_IPC_WORKER_H

#include <memory>

#include "core/abstract_worker.h"
#include "core/safe_queue.h"
#include "msgbus.h"

// Bus module identities: this worker registers as the WIDS bridge and always sends to widsd.
enum ipc_module_t {
    IPC_MODULE_WIDS_BRIDGE = MSGBUS_MODULE_WIDS_BRIDGE,
    IPC_MODULE_WIDSD = MSGBUS_MODULE_WIDSD,
};

class ipc_worker : public abstract_worker {
public:
    ipc_worker(safe_queue& to_websock, safe_queue& from_websock, ipc_module_t module, const volatile bool& run);
    ~ipc_worker() override;

    ipc_module_t route_message(const buffer_info_t& message) const;
    void send_ipc_message(const buffer_info_t& message) const;
    void from_daemon_dequeue_cb(const std::shared_ptr<buffer_info_t>& message) const;
    void process_ipc_message(message_s& message) const;

protected:
    bool __connect() override;
    bool execute() override;
    void __disconnect() override;
    bool condition(const volatile bool& run) override;

private:
    safe_queue& to_websock;
    safe_queue& from_websock;
    ipc_module_t module;
};

#endif
