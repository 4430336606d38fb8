#include "requests.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "msgbus.h"

namespace {

struct text_deleter {
    void operator()(char* text) const { std::free(text); }
};

class reply_builder {
public:
    explicit reply_builder(const std::string& command) : tree(cfg_get_empty())
    {
        cfg_set_param(tree.get(), "command", (command + "-response").c_str());
    }

    std::string ok()
    {
        cfg_set_param(tree.get(), "status", "ok");
        return text();
    }

    std::string ok_with_value(cfg_t* value)
    {
        cfg_set_param(tree.get(), "status", "ok");
        if (cfg_get_type(value) == CFG_TYPE_VALUE) {
            const char* plain = cfg_get_value(value);
            cfg_set_param(tree.get(), "value", plain == nullptr ? "" : plain);
        } else {
            cfg_set_node(tree.get(), "value", cfg_copy(value).release());
        }
        return text();
    }

    std::string fail(const std::string& reason)
    {
        cfg_set_param(tree.get(), "status", "fail");
        cfg_set_param(tree.get(), "reason", reason.c_str());
        return text();
    }

private:
    std::string text()
    {
        std::unique_ptr<char, text_deleter> serialized(cfg_serialize_compact(tree.get()));
        return serialized == nullptr ? std::string() : std::string(serialized.get());
    }

    cfg_ptr tree;
};

json_ptr params_of(cfg_t* request)
{
    cfg_t* params = cfg_get_param(request, "params");
    if (cfg_get_type(params) != CFG_TYPE_NODE)
        return nullptr;
    std::unique_ptr<char, text_deleter> text(cfg_serialize_compact(params));
    return json_ptr(text == nullptr ? nullptr : json_tokener_parse(text.get()));
}

std::string answer_get(virtual_device& device, cfg_t* request)
{
    reply_builder reply("get");
    if (cfg_get_type(cfg_get_param(request, "path")) != CFG_TYPE_VALUE)
        return reply.fail("the request has no path");
    cfg_t* found = cfg_find(device.config(), cfg_text(request, "path"));
    if (found == nullptr)
        return reply.fail("not found");
    return reply.ok_with_value(found);
}

std::string unknown_interface(const virtual_device& device, const std::string& ifname, bool radio_expected)
{
    if (ifname.empty())
        return "the request has no ifname";
    if (radio_expected && device.setup().find_vap(ifname) != nullptr)
        return ifname + " is a VAP, not a radio";
    if (!radio_expected && device.setup().find_radio(ifname) != nullptr)
        return ifname + " is a radio, not a VAP";
    return "unknown interface " + ifname;
}

std::string answer_update(virtual_device& device, cfg_t* request, const std::string& command)
{
    reply_builder reply(command);
    const bool radio_level = command == "update-quillon";
    const std::string ifname = cfg_text(request, "ifname");
    const radio* target_radio = radio_level ? device.setup().find_radio(ifname) : nullptr;
    const vap* target_vap = radio_level ? nullptr : device.setup().find_vap(ifname);
    if (target_radio == nullptr && target_vap == nullptr)
        return reply.fail(unknown_interface(device, ifname, radio_level));
    json_ptr params = params_of(request);
    if (params == nullptr)
        return reply.fail("the request has no params object");
    std::string reason;
    const bool applied = radio_level ? device.update_radio(*target_radio, params.get(), &reason)
                                     : device.update_fast_transition(*target_vap, params.get(), &reason);
    return applied ? reply.ok() : reply.fail(reason);
}

// Without an ifname every radio (or every VAP) goes back to the scenario. An interface the
// scenario does not have has nothing to restore: the daemon resets every VAP number it knows,
// whether the device has it or not, and is answered ok.
std::string answer_reset(virtual_device& device, cfg_t* request, const std::string& command)
{
    reply_builder reply(command);
    const bool radio_level = command == "reset-quillon";
    const std::string ifname = cfg_text(request, "ifname");
    std::string reason;
    for (const radio& entry : device.setup().radios) {
        if (radio_level && (ifname.empty() || ifname == entry.name) && !device.reset_radio(entry, &reason))
            return reply.fail(reason);
        for (const vap& member : entry.vaps) {
            if (!radio_level && (ifname.empty() || ifname == member.name) &&
                !device.reset_fast_transition(member, &reason))
                return reply.fail(reason);
        }
    }
    return reply.ok();
}

}  // namespace

int module_of(bus_role role)
{
    return role == bus_role::configd ? MSGBUS_MODULE_CONFIGD : MSGBUS_MODULE_NETWORKD;
}

const char* name_of(bus_role role)
{
    return role == bus_role::configd ? "configd" : "networkd";
}

bool role_named(const std::string& name, bus_role* role)
{
    for (bus_role candidate : {bus_role::configd, bus_role::networkd}) {
        if (name == name_of(candidate)) {
            *role = candidate;
            return true;
        }
    }
    return false;
}

std::string answer_request(virtual_device& device, bus_role role, std::string_view payload)
{
    cfg_ptr request;
    if (std::memchr(payload.data(), '\0', payload.size()) == nullptr)
        request.reset(cfg_parse_buffer(std::string(payload).c_str()));
    if (request == nullptr)
        return reply_builder("error").fail("the request is not a JSON object");
    if (cfg_get_type(cfg_get_param(request.get(), "command")) != CFG_TYPE_VALUE)
        return reply_builder("error").fail("the request has no command");
    const std::string command = cfg_text(request.get(), "command");

    if (role == bus_role::configd && command == "get")
        return answer_get(device, request.get());
    if (role == bus_role::networkd) {
        if (command == "update-quillon" || command == "update-quillon-fbt")
            return answer_update(device, request.get(), command);
        if (command == "reset-quillon" || command == "reset-quillon-fbt")
            return answer_reset(device, request.get(), command);
    }
    return reply_builder(command).fail("unknown command");
}
