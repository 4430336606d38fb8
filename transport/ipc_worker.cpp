#include "transport/ipc_worker.h"

#include <cstdlib>
#include <cstring>

#include "core/run_flags.h"
#include "core/trace.h"
#include "core/websock_cfg.h"

namespace {

// The parameter block the bus library expects from this module.
const signed char registration_params[] = {-2, 0};
// Where the library's received-message block keeps the payload length and the payload.
constexpr size_t message_length_offset = 4;
constexpr size_t message_payload_offset = 17;

}  // namespace

ipc_worker::ipc_worker(safe_queue& to_websock_queue, safe_queue& from_websock_queue, ipc_module_t own_module,
                       const volatile bool& run_flag)
    : abstract_worker(run_flag, "ipc", 100000, 1000000), to_websock(to_websock_queue),
      from_websock(from_websock_queue), module(own_module)
{
    trace.set_log_level(orvd_log_level);
}

ipc_worker::~ipc_worker()
{
    // Leaves the bus cleanly when destroyed while connected.
    disconnect();
}

bool ipc_worker::__connect()
{
    InitTrace("ORVd");
    SetTraceOpt(0, 4, 0);
    // A module another process holds cannot be ours: try again after the reconnect pause.
    if (InitLibParams(module, registration_params, sizeof(registration_params)) != 0)
        return false;
    SetModuleLoop(0);
    if (GetModuleLoop() != 0) {
        FreeLibParams();
        return false;
    }
    ModulePeerStart();
    return true;
}

bool ipc_worker::condition(const volatile bool& run_flag)
{
    return read_run_flag(run_flag) && GetModuleLoop() != 0;
}

bool ipc_worker::execute()
{
    // Messages from the bus go first; the worker pauses only when both directions are empty.
    if (message_s* received = GetMsgFromQueueNoWait()) {
        process_ipc_message(*received);
        free(received);
        return false;
    }
    return !from_websock.dequeue(
        [this](const std::shared_ptr<buffer_info_t>& message) { from_daemon_dequeue_cb(message); });
}

void ipc_worker::__disconnect()
{
    ModulePeerStop();
    SetModuleLoop(0);
    FreeLibParams();
}

ipc_module_t ipc_worker::route_message(const buffer_info_t&) const
{
    return IPC_MODULE_WIDSD;
}

void ipc_worker::send_ipc_message(const buffer_info_t& message) const
{
    // The buffer's terminating zero is not part of the message; an empty buffer is dropped.
    if (message.data != nullptr && message.size != 0)
        MsgSend(message.data, route_message(message), message.size);
}

void ipc_worker::from_daemon_dequeue_cb(const std::shared_ptr<buffer_info_t>& message) const
{
    send_ipc_message(*message);
}

void ipc_worker::process_ipc_message(message_s& message) const
{
    const char* block = reinterpret_cast<const char*>(&message);
    uint32_t length = 0;
    memcpy(&length, block + message_length_offset, sizeof(length));  // unaligned, host order
    auto buffer = std::make_shared<buffer_info_t>();
    buffer->append(block + message_payload_offset, length);
    to_websock.enqueue(buffer);
}
