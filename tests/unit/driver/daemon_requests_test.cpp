// The driver's exchanges with networkd and configd over the real bus, against a second real
// process (daemon_responder) that stands in for the daemon and records what it receives.
#include "driver/daemon_requests.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "core/trace.h"
#include "core/websock_cfg.h"
#include "driver_test_support.h"
#include "log_capture.h"
#include "msgbus.h"
#include "temp_root.h"

namespace {

using clock_type = std::chrono::steady_clock;

// How long one exchange waits for a reply that does not come.
constexpr long long exchange_timeout_ms =
    static_cast<long long>(daemon_requests::reply_timeout_units) * MSGBUS_WAIT_UNIT_MS;
// The wait ends on a condition variable's deadline, which a loaded machine may pass a little
// late but never early; this allows for the clock's rounding to whole milliseconds.
constexpr long long timeout_rounding_ms = 5;

long long elapsed_ms(clock_type::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - since).count();
}

// A daemon_responder process: started on the bus, killed and reaped when the object goes,
// whatever happened in between.
using responder = driver_test::responder_process;

std::vector<std::string> read_lines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

// One operation as the fault tests drive it: every failed exchange answers -1.
struct exchange_case {
    const char* name;
    std::function<int()> run;
    long long timeouts;  // exchanges that wait for their reply when the daemon is silent
    std::vector<std::string> error_lines;
};

class daemon_requests_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_log_level = orvd_log_level;
        saved_trace_mask = trace.get_log_level();
        orvd_log_level = 15;
        trace.set_log_level(15);
        // The driver's own registration, as its constructor makes it.
        const signed char params[] = {static_cast<signed char>(0xFE), 0x00};
        ASSERT_EQ(InitLibParams(MSGBUS_MODULE_RRM, params, 2), 0);
    }
    void TearDown() override
    {
        FreeLibParams();
        orvd_log_level = saved_log_level;
        trace.set_log_level(saved_trace_mask);
    }

    std::string socket_path(int module) const
    {
        return root.path() + "/run/msgbus/module-" + std::to_string(module);
    }
    std::string record_path(int module) const { return root.path() + "/requests-" + std::to_string(module); }

    // Starts the stand-in for `module` that records every request; `role` is its answer.
    void start_daemon(responder& daemon, int module, const std::vector<std::string>& role)
    {
        std::vector<std::string> arguments{"--module", std::to_string(module), "--record",
                                           record_path(module)};
        arguments.insert(arguments.end(), role.begin(), role.end());
        ASSERT_TRUE(daemon.start(arguments)) << "daemon_responder did not come up";
    }

    // The requests `module` has recorded, once there are at least `count` (or after 2 s).
    std::vector<std::string> requests_to(int module, size_t count) const
    {
        const auto start = clock_type::now();
        for (;;) {
            std::vector<std::string> lines = read_lines(record_path(module));
            if (lines.size() >= count || elapsed_ms(start) > 2000)
                return lines;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    bool logged(vlr_log_level_t level, const std::string& text) const
    {
        for (const auto& line : log.lines())
            if (line.level == level && line.text == text)
                return true;
        return false;
    }

    size_t times_logged(const std::string& text) const
    {
        auto texts = log.texts();
        return static_cast<size_t>(std::count(texts.begin(), texts.end(), text));
    }

    // Runs the exchange, which must fail and log its error lines, the first once for each
    // time-out; how long it took, in milliseconds.
    long long run_failing(const exchange_case& exchange)
    {
        log.clear();
        const auto start = clock_type::now();
        EXPECT_EQ(exchange.run(), -1);
        const long long took = elapsed_ms(start);
        for (const auto& line : exchange.error_lines)
            EXPECT_TRUE(logged(VLR_LOG_ERROR, line)) << line;
        EXPECT_EQ(times_logged(exchange.error_lines[0]), static_cast<size_t>(exchange.timeouts));
        return took;
    }

    // The value configd_get reads when configd answers with `reply`.
    std::string value_read_from(const std::string& reply)
    {
        responder configd;
        start_daemon(configd, MSGBUS_MODULE_CONFIGD, {"--reply", reply});
        std::string value = "untouched";
        EXPECT_EQ(requests.configd_get("wireless.radio0.channel", value), 0) << reply;
        return value;
    }

    temp_root root;  // first, so that it goes last: the responders are gone by then
    log_capture log;
    daemon_requests requests;
    int saved_log_level = 0;
    int saved_trace_mask = 0;
};

const std::string tx_power_request =
    R"({"command":"update-quillon","ifname":"wlan0","params":{"tx-power":"14"}})";

TEST_F(daemon_requests_test, a_tx_power_change_is_sent_as_one_compact_line_and_its_reply_taken)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--reply-ok"});
    EXPECT_EQ(requests.update_quillon("wlan0", {{"tx-power", "14"}}), 0);
    EXPECT_EQ(requests_to(MSGBUS_MODULE_NETWORKD, 1), std::vector<std::string>{tx_power_request});
    EXPECT_TRUE(logged(VLR_LOG_DEBUG, "Try to send update-quillon to networkd\n"));
    EXPECT_TRUE(logged(VLR_LOG_DEBUG, "Successfully received update-quillon-response from networkd\n"));
    EXPECT_EQ(GetModuleLoop(), 0);  // the peer is closed again after the exchange
}

TEST_F(daemon_requests_test, a_reply_with_another_command_is_ignored_until_the_time_out)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD,
                 {"--reply", R"({"command":"update-quillon-fbt-response","status":"ok"})"});
    const auto start = clock_type::now();
    EXPECT_EQ(requests.update_quillon("wlan0", {{"tx-power", "14"}}), -1);
    const long long took = elapsed_ms(start);
    EXPECT_GE(took, exchange_timeout_ms - timeout_rounding_ms);
    EXPECT_LT(took, exchange_timeout_ms + 800);
    EXPECT_EQ(requests_to(MSGBUS_MODULE_NETWORKD, 1), std::vector<std::string>{tx_power_request});
    EXPECT_TRUE(logged(VLR_LOG_ERROR, "Error: can't update Quillon params\n"));
    EXPECT_TRUE(logged(VLR_LOG_ERROR, "Error: no response (update_quillon)\n"));
}

TEST_F(daemon_requests_test, a_channel_change_sends_its_params_in_the_order_given)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--reply-ok"});
    EXPECT_EQ(
        requests.update_quillon("wlan1", {{"auto-channel", "false"}, {"channel", "36"}, {"bandwidth", "80"}}),
        0);
    EXPECT_EQ(requests.update_quillon("wlan1", {{"auto-channel", "false"},
                                                {"channel", "36"},
                                                {"bandwidth", "40"},
                                                {"control-sideband", "lower"}}),
              0);
    const std::vector<std::string> expected{
        R"({"command":"update-quillon","ifname":"wlan1","params":{"auto-channel":"false","channel":"36","bandwidth":"80"}})",
        R"({"command":"update-quillon","ifname":"wlan1","params":{"auto-channel":"false","channel":"36","bandwidth":"40","control-sideband":"lower"}})"};
    EXPECT_EQ(requests_to(MSGBUS_MODULE_NETWORKD, 2), expected);
}

TEST_F(daemon_requests_test, a_refusal_without_reason_fails_an_update_but_not_fast_transition_settings)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD,
                 {"--reply", R"({"command":"update-quillon-response","status":"fail"})", "--reply",
                  R"({"command":"update-quillon-fbt-response","status":"fail"})"});
    EXPECT_EQ(requests.update_quillon("wlan0", {{"tx-power", "14"}}), -1);
    EXPECT_EQ(times_logged("Error: ifname (wlan0) reason (invalid response)\n"), 1u);
    EXPECT_EQ(requests.set_quillon_fbt_params("wlan0", R"({"enabled":"1"})"), 0);
    EXPECT_EQ(times_logged("Error: ifname (wlan0) reason (invalid response)\n"), 2u);
    EXPECT_TRUE(logged(VLR_LOG_ERROR, "Error: ifname (wlan0) reason (invalid response)\n"));
    EXPECT_FALSE(logged(VLR_LOG_DEBUG, "Successfully received update-quillon-response from networkd\n"));
}

TEST_F(daemon_requests_test, a_refusal_with_a_reason_logs_the_reason)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD,
                 {"--reply", R"({"command":"reset-quillon-response","status":"busy","reason":"radio off"})"});
    EXPECT_EQ(requests.send_reset_quillon("wlan1"), -1);
    EXPECT_TRUE(logged(VLR_LOG_ERROR, "Error: ifname (wlan1) reason (radio off)\n"));
}

TEST_F(daemon_requests_test, an_accepted_fast_transition_change_answers_zero)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--reply-ok"});
    EXPECT_EQ(requests.set_quillon_fbt_params("wlan0-va0", R"({"enabled":"1"})"), 0);
    EXPECT_TRUE(logged(VLR_LOG_DEBUG, "Try to send update-quillon-fbt to networkd\n"));
    EXPECT_TRUE(logged(VLR_LOG_DEBUG, "Successfully received update-quillon-fbt-response from networkd\n"));
}

TEST_F(daemon_requests_test, a_read_of_an_empty_path_sends_nothing)
{
    responder configd;
    start_daemon(configd, MSGBUS_MODULE_CONFIGD, {"--reply", R"({"command":"get-response","value":"6"})"});
    std::string value = "untouched";
    EXPECT_EQ(requests.configd_get("", value), -1);
    EXPECT_EQ(value, "untouched");
    // The first request configd ever sees is the one that follows.
    ASSERT_EQ(requests.configd_get("system.name", value), 0);
    EXPECT_EQ(requests_to(MSGBUS_MODULE_CONFIGD, 1),
              std::vector<std::string>{R"({"command":"get","path":"system.name"})"});
}

TEST_F(daemon_requests_test, requests_without_an_interface_or_settings_send_nothing)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--reply-ok"});
    EXPECT_EQ(requests.update_quillon("", {{"tx-power", "14"}}), -1);
    EXPECT_EQ(requests.update_quillon("wlan0", {}), -1);
    EXPECT_EQ(requests.send_reset_quillon(""), -1);
    EXPECT_EQ(requests.set_quillon_fbt_params("wlan0-va0", "enabled=1"), -1);
    EXPECT_EQ(requests.set_quillon_fbt_params("wlan0-va0", ""), -1);
    EXPECT_TRUE(logged(VLR_LOG_ERROR, "Error: ifname (wlan0-va0) reason (invalid fbt params)\n"));
    EXPECT_EQ(requests.reset_quillon_fbt(0), 0);
    EXPECT_EQ(requests.reset_quillon_fbt(3), 0);
    // The first request networkd ever sees is the one that follows.
    ASSERT_EQ(requests.send_reset_quillon("wlan0"), 0);
    EXPECT_EQ(requests_to(MSGBUS_MODULE_NETWORKD, 1),
              std::vector<std::string>{R"({"command":"reset-quillon","ifname":"wlan0"})"});
}

TEST_F(daemon_requests_test, only_a_full_reset_puts_both_radios_back)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--reply-ok"});
    requests.reset_quillon(1);
    requests.reset_quillon(-1);
    requests.reset_quillon(0);
    const std::vector<std::string> expected{R"({"command":"reset-quillon","ifname":"wlan0"})",
                                            R"({"command":"reset-quillon","ifname":"wlan1"})"};
    EXPECT_EQ(requests_to(MSGBUS_MODULE_NETWORKD, 2), expected);
    EXPECT_EQ(times_logged("Successfully received reset-quillon-response from networkd\n"), 2u);
}

TEST_F(daemon_requests_test, a_plain_value_is_read_as_its_text)
{
    EXPECT_EQ(value_read_from(R"({"command":"get-response","status":"ok","value":"36"})"), "36");
    EXPECT_EQ(value_read_from(R"({"command":"get-response","value":true})"), "true");
    EXPECT_EQ(value_read_from(R"({"command":"get-response","value":1.50})"), "1.50");
    EXPECT_EQ(value_read_from(R"({"command":"get-response","value":-7})"), "-7");
    EXPECT_TRUE(logged(VLR_LOG_DEBUG, "Try to send get to configd\n"));
    EXPECT_TRUE(logged(VLR_LOG_DEBUG, "get-response successfully received\n"));
}

TEST_F(daemon_requests_test, a_null_or_missing_value_is_read_as_empty_text)
{
    EXPECT_EQ(value_read_from(R"({"command":"get-response","value":null})"), "");
    EXPECT_EQ(value_read_from(R"({"command":"get-response","status":"ok"})"), "");
}

TEST_F(daemon_requests_test, the_status_of_a_read_is_not_consulted)
{
    EXPECT_EQ(value_read_from(R"({"command":"get-response","status":"fail","value":"11"})"), "11");
}

TEST_F(daemon_requests_test, a_subtree_is_read_as_readable_text)
{
    EXPECT_EQ(value_read_from(R"({"command":"get-response","value":{"channel":"36","list":[1,2]}})"),
              "{\n  \"channel\":\"36\",\n  \"list\":[\n    1,\n    2\n  ]\n}");
    EXPECT_EQ(value_read_from(R"({"command":"get-response","value":["a"]})"), "[\n  \"a\"\n]");
}

TEST_F(daemon_requests_test, every_request_is_sent_as_exact_text)
{
    responder networkd;
    responder configd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--reply-ok"});
    start_daemon(configd, MSGBUS_MODULE_CONFIGD, {"--reply", R"({"command":"get-response","value":"x"})"});
    std::string value;
    EXPECT_EQ(requests.update_quillon("wlan1", {{"tx-power", "20"}}), 0);
    EXPECT_EQ(requests.configd_get("wireless.radio1.channel", value), 0);
    EXPECT_EQ(requests.set_quillon_fbt_params("wlan0-va1", R"( {"enabled": "1", "mobility-domain": "a1b2",
                                                                 "over-ds": false} )"),
              0);
    EXPECT_EQ(requests.send_reset_quillon("wlan1"), 0);
    requests.reset_quillon(0);
    EXPECT_EQ(requests.reset_quillon_fbt_all(1), 0);
    const std::vector<std::string> to_networkd{
        R"({"command":"update-quillon","ifname":"wlan1","params":{"tx-power":"20"}})",
        R"({"command":"update-quillon-fbt","ifname":"wlan0-va1","params":{"enabled":"1","mobility-domain":"a1b2","over-ds":false}})",
        R"({"command":"reset-quillon","ifname":"wlan1"})",
        R"({"command":"reset-quillon","ifname":"wlan0"})",
        R"({"command":"reset-quillon","ifname":"wlan1"})",
        R"({"command":"reset-quillon-fbt","ifname":"wlan0-va0"})",
        R"({"command":"reset-quillon-fbt","ifname":"wlan1-va0"})"};
    EXPECT_EQ(requests_to(MSGBUS_MODULE_NETWORKD, to_networkd.size()), to_networkd);
    EXPECT_EQ(requests_to(MSGBUS_MODULE_CONFIGD, 1),
              std::vector<std::string>{R"({"command":"get","path":"wireless.radio1.channel"})"});
}

TEST_F(daemon_requests_test, send_and_wait_hands_back_the_reply_and_closes_the_peer)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD,
                 {"--reply", R"({"command":"probe-response","status":"ok","echo":"1"})"});
    cfg_t* request = cfg_parse_buffer(R"({"command": "probe"})");
    cfg_t* reply =
        requests.send_and_wait(request, "probe-response", MSGBUS_MODULE_NETWORKD, "probe failed\n");
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(cfg_get_value(cfg_get_param(reply, "echo")), "1");
    EXPECT_EQ(GetModuleLoop(), 0);
    cfg_release(reply);
    cfg_release(request);
    EXPECT_EQ(requests_to(MSGBUS_MODULE_NETWORKD, 1), std::vector<std::string>{R"({"command":"probe"})"});
}

TEST_F(daemon_requests_test, every_vap_of_both_radios_is_reset_in_order)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--reply-ok"});
    EXPECT_EQ(requests.reset_quillon_fbt_all(7), 0);
    std::vector<std::string> expected;
    for (int radio = 0; radio < 2; ++radio)
        for (int vap = 0; vap < 7; ++vap)
            expected.push_back(R"({"command":"reset-quillon-fbt","ifname":"wlan)" + std::to_string(radio) +
                               "-va" + std::to_string(vap) + R"("})");
    EXPECT_EQ(requests_to(MSGBUS_MODULE_NETWORKD, 14), expected);
    EXPECT_TRUE(logged(VLR_LOG_DEBUG, "__reset_quillon_fbt\n"));
    EXPECT_EQ(times_logged("Try to send reset-quillon-fbt to networkd\n"), 14u);
    EXPECT_EQ(times_logged("Successfully received reset-quillon-fbt-response from networkd\n"), 14u);
}

TEST_F(daemon_requests_test, a_refused_vap_reset_does_not_stop_the_others)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD,
                 {"--reply", R"({"command":"reset-quillon-fbt-response","status":"fail","reason":"no vap"})",
                  "--reply", R"({"command":"reset-quillon-fbt-response","status":"ok"})"});
    EXPECT_EQ(requests.reset_quillon_fbt_all(2), 0);
    EXPECT_EQ(requests_to(MSGBUS_MODULE_NETWORKD, 4).size(), 4u);
    EXPECT_TRUE(logged(VLR_LOG_ERROR, "Error: ifname (wlan0-va0) reason (no vap)\n"));
    EXPECT_EQ(times_logged("Successfully received reset-quillon-fbt-response from networkd\n"), 3u);
}

TEST_F(daemon_requests_test, a_silent_networkd_stops_the_vap_resets_at_the_first)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--silent"});
    const auto start = clock_type::now();
    EXPECT_EQ(requests.reset_quillon_fbt_all(7), -1);
    const long long took = elapsed_ms(start);
    EXPECT_GE(took, exchange_timeout_ms - timeout_rounding_ms);
    EXPECT_LT(took, exchange_timeout_ms + 300);  // one time-out: the one request below shows it
    EXPECT_TRUE(logged(VLR_LOG_ERROR, "Error: can't reset Quillon params\n"));
    EXPECT_TRUE(logged(VLR_LOG_ERROR, "Error: no response (__reset_quillon_fbt)\n"));
    EXPECT_EQ(requests_to(MSGBUS_MODULE_NETWORKD, 1),
              std::vector<std::string>{R"({"command":"reset-quillon-fbt","ifname":"wlan0-va0"})"});
}

// Bus calls that go through the real library but answer what a device library might: the
// peer start and the send report `start_result` and `send_result` whatever happened, and
// every call is recorded in order.
struct answering_bus {
    static int start_result;
    static int send_result;
    static std::vector<std::string> calls;

    static int peer_start()
    {
        calls.push_back("peer_start");
        ModulePeerStart();
        return start_result;
    }
    static int send(const void* payload, int module, unsigned int length)
    {
        calls.push_back("send");
        MsgSend(payload, module, length);
        return send_result;
    }
    static cfg_t* wait(const char* command, const char* error_text, int timeout)
    {
        calls.push_back("wait");
        return wait_answer(command, error_text, timeout);
    }
    static void peer_stop()
    {
        calls.push_back("peer_stop");
        ModulePeerStop();
    }
    static daemon_requests::bus_calls as_calls() { return {peer_start, send, wait, peer_stop}; }
};
int answering_bus::start_result = 0;
int answering_bus::send_result = 0;
std::vector<std::string> answering_bus::calls;

const std::vector<std::string> whole_exchange{"peer_start", "send", "wait", "peer_stop"};

TEST_F(daemon_requests_test, a_peer_start_answering_non_zero_still_sends_waits_and_stops_the_peer)
{
    responder networkd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--reply-ok"});
    for (int answer : {-1, 1, 7}) {
        SCOPED_TRACE(answer);
        answering_bus::start_result = answer;
        answering_bus::send_result = 0;
        answering_bus::calls.clear();
        daemon_requests device_requests(answering_bus::as_calls());
        EXPECT_EQ(device_requests.update_quillon("wlan0", {{"tx-power", "14"}}), 0);
        EXPECT_EQ(answering_bus::calls, whole_exchange);
        EXPECT_EQ(GetModuleLoop(), 0);  // the peer is closed again after the exchange
    }
    EXPECT_EQ(requests_to(MSGBUS_MODULE_NETWORKD, 3), std::vector<std::string>(3, tx_power_request));
    EXPECT_EQ(times_logged("Try to send update-quillon to networkd\n"), 3u);
    EXPECT_EQ(times_logged("Successfully received update-quillon-response from networkd\n"), 3u);
    EXPECT_EQ(times_logged("Error: can't update Quillon params\n"), 0u);
}

TEST_F(daemon_requests_test, a_send_answering_non_zero_still_waits_for_the_reply)
{
    responder networkd;
    responder configd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--reply-ok"});
    start_daemon(configd, MSGBUS_MODULE_CONFIGD, {"--reply", R"({"command":"get-response","value":"36"})"});
    for (int answer : {-1, 1}) {
        SCOPED_TRACE(answer);
        answering_bus::start_result = 0;
        answering_bus::send_result = answer;
        answering_bus::calls.clear();
        daemon_requests device_requests(answering_bus::as_calls());
        EXPECT_EQ(device_requests.send_reset_quillon("wlan1"), 0);
        std::string value = "untouched";
        EXPECT_EQ(device_requests.configd_get("wireless.radio1.channel", value), 0);
        EXPECT_EQ(value, "36");
        std::vector<std::string> two_exchanges = whole_exchange;
        two_exchanges.insert(two_exchanges.end(), whole_exchange.begin(), whole_exchange.end());
        EXPECT_EQ(answering_bus::calls, two_exchanges);
    }
    EXPECT_EQ(times_logged("Successfully received reset-quillon-response from networkd\n"), 2u);
    EXPECT_EQ(times_logged("get-response successfully received\n"), 2u);
    EXPECT_EQ(times_logged("Error: can't reset Quillon params\n"), 0u);
    EXPECT_EQ(times_logged("Error: can't get config\n"), 0u);
}

TEST_F(daemon_requests_test, a_failed_exchange_still_runs_all_four_steps_in_order)
{
    // An absent daemon: the host library refuses the send, and the wait ends at once.
    answering_bus::start_result = 0;
    answering_bus::send_result = 0;
    answering_bus::calls.clear();
    daemon_requests device_requests(answering_bus::as_calls());
    EXPECT_EQ(device_requests.send_reset_quillon("wlan0"), -1);
    EXPECT_EQ(answering_bus::calls, whole_exchange);
    EXPECT_EQ(times_logged("Error: can't reset Quillon params\n"), 1u);
    EXPECT_EQ(times_logged("Error: no response (send_reset_quillon)\n"), 1u);
}

std::vector<exchange_case> every_exchange(daemon_requests& requests, std::string& value)
{
    return {
        {"update_quillon",
         [&] {
             return requests.update_quillon("wlan0", {{"tx-power", "14"}});
         },
         1,
         {"Error: can't update Quillon params\n", "Error: no response (update_quillon)\n"}},
        {"configd_get",
         [&] { return requests.configd_get("wireless.radio0.channel", value); },
         1,
         {"Error: can't get config\n", "Error: path (wireless.radio0.channel) reason (not found)\n"}},
        {"set_quillon_fbt_params",
         [&] { return requests.set_quillon_fbt_params("wlan0-va0", R"({"enabled":"1"})"); },
         1,
         {"Error: can't update Quillon fbt params\n", "Error: no response (set_quillon_fbt_params)\n"}},
        {"send_reset_quillon",
         [&] { return requests.send_reset_quillon("wlan0"); },
         1,
         {"Error: can't reset Quillon params\n", "Error: no response (send_reset_quillon)\n"}},
        {"reset_quillon",
         [&] {
             requests.reset_quillon(0);
             return -1;  // it has no result of its own
         },
         2,
         {"Error: can't reset Quillon params\n", "Error: no response (send_reset_quillon)\n"}},
        {"reset_quillon_fbt_all",
         [&] { return requests.reset_quillon_fbt_all(7); },
         1,
         {"Error: can't reset Quillon params\n", "Error: no response (__reset_quillon_fbt)\n"}},
    };
}

TEST_F(daemon_requests_test, absent_daemons_fail_every_exchange_at_once)
{
    std::string value;
    long long longest = 0;
    auto every_exchange_fails_at_once = [&] {
        for (const auto& exchange : every_exchange(requests, value)) {
            SCOPED_TRACE(exchange.name);
            const long long took = run_failing(exchange);
            longest = std::max(longest, took);
            EXPECT_LT(took, 50);
        }
    };
    {
        SCOPED_TRACE("never on the bus");
        every_exchange_fails_at_once();
    }
    {
        SCOPED_TRACE("died, leaving their socket files behind");
        responder networkd;
        responder configd;
        start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--silent"});
        start_daemon(configd, MSGBUS_MODULE_CONFIGD, {"--silent"});
        networkd.stop();
        configd.stop();
        ASSERT_EQ(::access(socket_path(MSGBUS_MODULE_NETWORKD).c_str(), F_OK), 0);
        ASSERT_EQ(::access(socket_path(MSGBUS_MODULE_CONFIGD).c_str(), F_OK), 0);
        every_exchange_fails_at_once();
    }
    std::printf("exchanges with an absent daemon: longest %lld ms\n", longest);
}

TEST_F(daemon_requests_test, silent_daemons_end_every_exchange_by_its_time_out)
{
    responder networkd;
    responder configd;
    start_daemon(networkd, MSGBUS_MODULE_NETWORKD, {"--silent"});
    start_daemon(configd, MSGBUS_MODULE_CONFIGD, {"--silent"});
    std::string value = "untouched";
    for (const auto& exchange : every_exchange(requests, value)) {
        SCOPED_TRACE(exchange.name);
        const long long took = run_failing(exchange);
        EXPECT_GE(took, (exchange_timeout_ms - timeout_rounding_ms) * exchange.timeouts);
        EXPECT_LT(took, exchange_timeout_ms * exchange.timeouts + 300);
    }
    EXPECT_EQ(value, "untouched");
}

TEST_F(daemon_requests_test, a_burst_of_forty_reads_from_a_silent_configd_stays_below_the_clock_guard)
{
    responder configd;
    start_daemon(configd, MSGBUS_MODULE_CONFIGD, {"--silent"});
    std::string value;
    long long longest = 0;
    const auto burst_start = clock_type::now();
    for (int read = 0; read < 40; ++read) {
        const auto start = clock_type::now();
        EXPECT_EQ(requests.configd_get("wireless.radio0.channel", value), -1);
        longest = std::max(longest, elapsed_ms(start));
    }
    const long long total = elapsed_ms(burst_start);
    std::printf("burst of 40 reads from a silent configd: %lld ms in all, longest read %lld ms\n", total,
                longest);
    RecordProperty("burst_total_ms", static_cast<int>(total));
    RecordProperty("burst_longest_read_ms", static_cast<int>(longest));
    EXPECT_LT(longest, 400);
    EXPECT_LT(total, 9000);  // the worker's clock guard ends the process at 10 s
}

}  // namespace
