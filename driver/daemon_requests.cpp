#include "driver/daemon_requests.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/trace.h"
#include "driver/config_values.h"
#include "msgbus.h"

namespace {

struct tree_deleter {
    void operator()(cfg_t* tree) const { cfg_release(tree); }
};
using owned_tree = std::unique_ptr<cfg_t, tree_deleter>;

// A request {"command": command, "ifname": ifname}; null when the tree cannot be built.
owned_tree interface_request(const char* command, const std::string& ifname)
{
    owned_tree request(cfg_get_empty());
    if (cfg_set_param(request.get(), "command", command) != 0 ||
        cfg_set_param(request.get(), "ifname", ifname.c_str()) != 0)
        return nullptr;
    return request;
}

bool status_is_ok(const cfg_t* reply)
{
    const char* status = cfg_get_value(cfg_get_param(reply, "status"));
    return status != nullptr && std::strcmp(status, "ok") == 0;
}

void log_refusal(const std::string& ifname, const cfg_t* reply)
{
    const char* reason = cfg_get_value(cfg_get_param(reply, "reason"));
    trace.error("Error: ifname (%s) reason (%s)\n", ifname.c_str(),
                reason != nullptr ? reason : "invalid response");
}

void log_failed_exchange(const char* error_text)
{
    if (error_text != nullptr)
        trace.error("%s", error_text);
}

}  // namespace

const daemon_requests::bus_calls daemon_requests::library_calls = {ModulePeerStart, MsgSend, wait_answer,
                                                                   ModulePeerStop};

cfg_t* daemon_requests::send_and_wait(cfg_t* request, const char* reply_command, int module,
                                      const char* error_text) const
{
    // Neither the peer start's nor the send's result is consulted: only the host library
    // answers 0 on success, and what the device library answers is not known. The wait
    // decides: a reply comes, or its time runs out (the host library ends it at once when
    // the module is not on the bus), and the peer is stopped in every case.
    bus.peer_start();
    char* text = cfg_serialize_compact(request);
    cfg_t* reply = nullptr;
    if (text == nullptr) {
        // Nothing could be sent, so no reply can come.
        log_failed_exchange(error_text);
    } else {
        bus.send(text, module, static_cast<unsigned>(std::strlen(text)));
        reply = bus.wait(reply_command, error_text, reply_timeout_units);
    }
    bus.peer_stop();
    std::free(text);
    return reply;
}

int daemon_requests::update_quillon(const std::string& ifname, const param_list& params) const
{
    if (ifname.empty() || params.empty())
        return -1;
    owned_tree request = interface_request("update-quillon", ifname);
    cfg_t* values = cfg_get_empty();
    bool built = request != nullptr && values != nullptr;
    for (const auto& param : params)
        built = built && cfg_set_param(values, param.first.c_str(), param.second.c_str()) == 0;
    if (!built || cfg_set_node(request.get(), "params", values) != 0) {
        if (!built)
            cfg_release(values);
        trace.error("Error: can't update Quillon params\n");
        return -1;
    }

    trace.debug("Try to send update-quillon to networkd\n");
    owned_tree reply(send_and_wait(request.get(), "update-quillon-response", MSGBUS_MODULE_NETWORKD,
                                   "Error: can't update Quillon params\n"));
    if (reply == nullptr) {
        trace.error("Error: no response (%s)\n", "update_quillon");
        return -1;
    }
    if (!status_is_ok(reply.get())) {
        log_refusal(ifname, reply.get());
        return -1;
    }
    trace.debug("Successfully received update-quillon-response from networkd\n");
    return 0;
}

int daemon_requests::configd_get(const std::string& path, std::string& value) const
{
    if (path.empty())
        return -1;
    owned_tree request(cfg_get_empty());
    if (cfg_set_param(request.get(), "command", "get") != 0 ||
        cfg_set_param(request.get(), "path", path.c_str()) != 0) {
        trace.error("Error: can't get config\n");
        return -1;
    }

    trace.debug("Try to send get to configd\n");
    owned_tree reply(
        send_and_wait(request.get(), "get-response", MSGBUS_MODULE_CONFIGD, "Error: can't get config\n"));
    if (reply == nullptr) {
        trace.error("Error: path (%s) reason (not found)\n", path.c_str());
        return -1;
    }
    // configd's "status" is not consulted: whatever "value" it sends is the answer.
    value = config_values::reply_value(reply.get());
    trace.debug("get-response successfully received\n");
    return 0;
}

int daemon_requests::set_quillon_fbt_params(const std::string& ifname, const std::string& params) const
{
    // A request without its settings could be read by networkd as "clear them": nothing is
    // sent unless the settings are a JSON object.
    cfg_t* settings = cfg_parse_buffer(params.c_str());
    if (settings == nullptr) {
        trace.error("Error: ifname (%s) reason (invalid fbt params)\n", ifname.c_str());
        return -1;
    }
    owned_tree request = interface_request("update-quillon-fbt", ifname);
    if (request == nullptr || cfg_set_node(request.get(), "params", settings) != 0) {
        if (request == nullptr)
            cfg_release(settings);
        trace.error("Error: can't update Quillon fbt params\n");
        return -1;
    }

    trace.debug("Try to send update-quillon-fbt to networkd\n");
    owned_tree reply(send_and_wait(request.get(), "update-quillon-fbt-response", MSGBUS_MODULE_NETWORKD,
                                   "Error: can't update Quillon fbt params\n"));
    if (reply == nullptr) {
        trace.error("Error: no response (%s)\n", "set_quillon_fbt_params");
        return -1;
    }
    // A refusal is only logged: the caller goes on as if the settings were taken.
    if (status_is_ok(reply.get()))
        trace.debug("Successfully received update-quillon-fbt-response from networkd\n");
    else
        log_refusal(ifname, reply.get());
    return 0;
}

int daemon_requests::send_reset_quillon(const std::string& ifname) const
{
    if (ifname.empty())
        return -1;
    owned_tree request = interface_request("reset-quillon", ifname);
    if (request == nullptr) {
        trace.error("Error: can't reset Quillon params\n");
        return -1;
    }

    trace.debug("Try to send reset-quillon to networkd\n");
    owned_tree reply(send_and_wait(request.get(), "reset-quillon-response", MSGBUS_MODULE_NETWORKD,
                                   "Error: can't reset Quillon params\n"));
    if (reply == nullptr) {
        trace.error("Error: no response (%s)\n", "send_reset_quillon");
        return -1;
    }
    if (!status_is_ok(reply.get())) {
        log_refusal(ifname, reply.get());
        return -1;
    }
    trace.debug("Successfully received reset-quillon-response from networkd\n");
    return 0;
}

void daemon_requests::reset_quillon(int cause) const
{
    if (cause != 0)
        return;
    // Each radio is reset on its own; one that fails does not keep the other from it.
    send_reset_quillon("wlan0");
    send_reset_quillon("wlan1");
}

int daemon_requests::reset_quillon_fbt(int cause) const
{
    (void)cause;
    return 0;
}

int daemon_requests::reset_quillon_fbt_all(int max_vap) const
{
    trace.debug("%s\n", "__reset_quillon_fbt");
    for (int radio = 0; radio < 2; ++radio) {
        for (int vap = 0; vap < max_vap; ++vap) {
            const std::string ifname = "wlan" + std::to_string(radio) + "-va" + std::to_string(vap);
            owned_tree request = interface_request("reset-quillon-fbt", ifname);
            if (request == nullptr) {
                trace.error("Error: can't reset Quillon params\n");
                return -1;
            }
            trace.debug("Try to send reset-quillon-fbt to networkd\n");
            owned_tree reply(send_and_wait(request.get(), "reset-quillon-fbt-response",
                                           MSGBUS_MODULE_NETWORKD, "Error: can't reset Quillon params\n"));
            // A networkd that does not answer for one VAP will not for the others either.
            if (reply == nullptr) {
                trace.error("Error: no response (%s)\n", "__reset_quillon_fbt");
                return -1;
            }
            if (status_is_ok(reply.get()))
                trace.debug("Successfully received reset-quillon-fbt-response from networkd\n");
            else
                log_refusal(ifname, reply.get());
        }
    }
    return 0;
}
