#include "core/websock_cfg.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "core/run_mode.h"
#include "core/trace.h"
#include "log_capture.h"
#include "emulator.h"

namespace {

class websock_cfg_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/orvd-cfg-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        orvd_log_level = 0;
    }
    void TearDown() override
    {
        unlink(file_path().c_str());
        rmdir(dir.c_str());
        trace.set_log_level(0);
        orvd_log_level = 0;
    }

    std::string file_path() const { return dir + "/orvd.conf"; }

    std::string write_file(const std::string& contents)
    {
        std::ofstream out(file_path(), std::ios::binary);
        out << contents;
        return file_path();
    }

    // Runs the whole start-up parse on a command line.
    static websock_cfg_t parse(std::vector<std::string> args)
    {
        args.insert(args.begin(), "orvd");
        std::vector<const char*> argv;
        for (const auto& arg : args)
            argv.push_back(arg.c_str());
        argv.push_back(nullptr);
        optind = 0;  // a full re-initialisation of getopt for each parse
        return websock_cfg_t(static_cast<int>(args.size()), argv.data());
    }

    websock_cfg_t parse_contents(const std::string& contents) { return parse({"-f", write_file(contents)}); }

    std::string dir;
};

TEST_F(websock_cfg_test, without_a_file_no_service_is_enabled)
{
    const auto config = parse({});
    for (const auto& service : config.services) {
        EXPECT_FALSE(service.enabled);
        EXPECT_EQ(service.port, 0);
        EXPECT_STREQ(service.host, "");
    }
    EXPECT_EQ(select_run_mode(config), run_mode_t::none);
    EXPECT_EQ(config.config_error, 0);
    EXPECT_EQ(config.service_count, 3);
}

TEST_F(websock_cfg_test, host_path_and_port_options_fill_every_record_but_enable_none)
{
    const auto config = parse({"-d", "h", "-p", "x", "-P", "80"});
    for (const auto& service : config.services) {
        EXPECT_FALSE(service.enabled);
        EXPECT_STREQ(service.host, "h");
        EXPECT_STREQ(service.path, "x");  // taken as given, no "/" added
        EXPECT_EQ(service.port, 80);
    }
    EXPECT_EQ(select_run_mode(config), run_mode_t::none);
}

TEST_F(websock_cfg_test, option_texts_are_cut_to_255_characters)
{
    const std::string long_host(300, 'h');
    const auto config = parse({"-d", long_host});
    EXPECT_EQ(std::string(config.services[2].host), std::string(255, 'h'));
}

TEST_F(websock_cfg_test, the_parse_enables_all_tracing_while_it_runs)
{
    trace.set_log_level(0);
    const auto config = parse({});
    EXPECT_EQ(trace.get_log_level(), 65535);
}

TEST_F(websock_cfg_test, a_file_that_enables_both_services_runs_wids_mode_only)
{
    const auto config = parse_contents("quillon_service_url=ws://rrm:8080/rrm\n"
                                       "roam_service_url=ws://roam:9000/wids\n");
    EXPECT_TRUE(config.services[WS_INSTANCE_ROAMING].enabled);
    EXPECT_TRUE(config.services[WS_INSTANCE_QUILLON].enabled);
    EXPECT_EQ(select_run_mode(config), run_mode_t::wids);
}

TEST_F(websock_cfg_test, a_file_that_enables_the_quillon_service_runs_rrm_mode)
{
    const auto config = parse_contents("quillon_service_url=ws://rrm:8080/rrm\n");
    EXPECT_EQ(select_run_mode(config), run_mode_t::rrm);
    EXPECT_STREQ(config.services[1].host, "rrm");
    EXPECT_EQ(config.services[1].port, 8080);
    EXPECT_STREQ(config.services[1].path, "/rrm");
}

TEST_F(websock_cfg_test, the_mac_list_service_is_parsed_but_runs_no_mode)
{
    const auto config = parse_contents("mac-list-service-url=ws://macs:81/list\nmac-list-id=abc-42\n");
    EXPECT_TRUE(config.services[WS_INSTANCE_MAC_LIST].enabled);
    EXPECT_STREQ(config.services[2].path, "/list");
    EXPECT_EQ(config.mac_list_id, "abc-42");
    EXPECT_EQ(select_run_mode(config), run_mode_t::none);
}

TEST_F(websock_cfg_test, keys_ignore_case_but_must_start_in_the_first_column)
{
    auto config = parse_contents("QUILLON_SERVICE_URL=ws://h:80/rrm\n");
    EXPECT_TRUE(config.services[1].enabled);

    config = parse_contents(" quillon_service_url=ws://h:80/rrm\n");
    EXPECT_FALSE(config.services[1].enabled);
}

TEST_F(websock_cfg_test, log_level_reads_hex_after_0x_and_decimal_otherwise)
{
    EXPECT_EQ(parse_contents("log_level=0x0F\n").log_level, 15u);
    EXPECT_EQ(orvd_log_level, 15);
    EXPECT_EQ(trace.get_log_level(), 15);  // applied at once
    EXPECT_EQ(parse_contents("log_level=0X0f\n").log_level, 15u);
    EXPECT_EQ(parse_contents("log_level=15\n").log_level, 15u);
    EXPECT_EQ(parse_contents("log_level=9\n").log_level, 9u);
    EXPECT_EQ(parse_contents("log_level=\n").log_level, 0u);
    EXPECT_EQ(orvd_log_level, 0);
}

TEST_F(websock_cfg_test, a_file_without_log_level_leaves_the_process_level_at_0)
{
    orvd_log_level = 15;
    const auto config = parse_contents("quillon_service_url=ws://h:80/rrm\n");
    EXPECT_EQ(orvd_log_level, 0);
    EXPECT_EQ(config.log_level, 0u);
}

TEST_F(websock_cfg_test, a_wss_url_stops_the_parse_and_later_lines_are_not_applied)
{
    log_capture log;
    const auto config = parse_contents("log_level=0x0F\n"
                                       "roam_service_url=wss://h:443/wids\n"
                                       "quillon_service_url=ws://h:80/rrm\n"
                                       "log_level=9\n");
    EXPECT_EQ(config.config_error, 1);
    EXPECT_FALSE(config.services[0].enabled);
    EXPECT_FALSE(config.services[1].enabled);
    EXPECT_EQ(config.log_level, 15u);  // what was read before stays
    EXPECT_TRUE(log.contains("Proto wss is invalid\n"));
}

TEST_F(websock_cfg_test, only_the_exact_scheme_ws_is_accepted)
{
    for (const char* scheme : {"WS", "http", "wss", ""}) {
        const auto config = parse_contents(std::string("quillon_service_url=") + scheme + "://h:80/rrm\n");
        EXPECT_FALSE(config.services[1].enabled) << scheme;
        EXPECT_EQ(config.config_error, 1) << scheme;
    }
}

TEST_F(websock_cfg_test, an_unreadable_file_sets_config_error_and_the_defaults_stay)
{
    const auto config = parse({"-f", dir + "/missing.conf"});
    EXPECT_EQ(config.config_error, 1);
    EXPECT_STREQ(config.services[0].ap_location, "default-rrm-domain");
    EXPECT_EQ(select_run_mode(config), run_mode_t::none);
}

TEST_F(websock_cfg_test, every_parse_first_sets_the_default_ap_location)
{
    const auto config = parse_contents("# nothing\n");
    for (const auto& service : config.services)
        EXPECT_STREQ(service.ap_location, "default-rrm-domain");
}

TEST_F(websock_cfg_test, url_forms)
{
    struct url_case {
        const char* url;
        bool enabled;
        const char* host;
        int port;
        const char* path;
    } cases[] = {
        {"ws://h:80/rrm", true, "h", 80, "/rrm"},
        {"ws://h:80/", true, "h", 80, "/"},
        {"ws://h:80", false, "", 0, ""},
        {"ws://h/x", false, "", 0, ""},
        {"h:80/x", true, "h", 80, "/x"},
        {"ws://10.0.0.1:8080/a/b/c", true, "10.0.0.1", 8080, "/a/b/c"},
        {"ws://h:80/rrm?x=1", true, "h", 80, "/rrm?x=1"},
        {"ws://h:abc/x", true, "h", 0, "/x"},
    };
    for (const auto& c : cases) {
        const auto config = parse_contents(std::string("quillon_service_url=") + c.url + "\r\n");
        const auto& service = config.services[1];
        EXPECT_EQ(service.enabled, c.enabled) << c.url;
        EXPECT_STREQ(service.host, c.host) << c.url;
        EXPECT_EQ(service.port, c.port) << c.url;
        EXPECT_STREQ(service.path, c.path) << c.url;
        EXPECT_EQ(config.config_error, 0) << c.url;
    }
}

TEST_F(websock_cfg_test, a_url_without_port_or_path_keeps_what_the_options_set)
{
    const auto config = parse({"-d", "opt", "-P", "81", "-f", write_file("quillon_service_url=ws://h:80\n")});
    EXPECT_FALSE(config.services[1].enabled);
    EXPECT_STREQ(config.services[1].host, "opt");
    EXPECT_EQ(config.services[1].port, 81);
}

TEST_F(websock_cfg_test, a_later_line_with_the_same_key_overrides_an_earlier_one)
{
    const auto config = parse_contents("quillon_service_url=ws://a:1/one\n"
                                       "quillon_service_url=ws://b:2/two\n"
                                       "initial_connection_delay=3\n"
                                       "initial_connection_delay=7\n");
    EXPECT_STREQ(config.services[1].host, "b");
    EXPECT_EQ(config.services[1].port, 2);
    EXPECT_STREQ(config.services[1].path, "/two");
    EXPECT_EQ(config.services[0].initial_connection_delay, 7u);
}

TEST_F(websock_cfg_test, delays_are_read_unchecked_into_every_record)
{
    const auto config = parse_contents("initial_connection_delay=2\nmax_connection_delay=4294967295\n");
    for (const auto& service : config.services) {
        EXPECT_EQ(service.initial_connection_delay, 2u);
        EXPECT_EQ(service.max_connection_delay, 4294967295u);
    }
}

TEST_F(websock_cfg_test, ap_location_and_log_file_are_cut_at_the_line_end)
{
    const auto config = parse_contents("ap_location=floor-3\r\nlog_file=/var/log/orvd.log\n");
    for (const auto& service : config.services)
        EXPECT_STREQ(service.ap_location, "floor-3");
    EXPECT_TRUE(orvd_log_to_file);
    EXPECT_EQ(orvd_log_file_name, "/var/log/orvd.log");

    parse_contents("# no log_file\n");
    EXPECT_FALSE(orvd_log_to_file);  // every parse clears the flag first
}

TEST_F(websock_cfg_test, a_long_ap_location_line_keeps_242_value_characters)
{
    const std::string value(300, 'a');
    const auto config = parse_contents("ap_location=" + value + "\n");
    EXPECT_EQ(std::string(config.services[0].ap_location), std::string(242, 'a'));
}

TEST_F(websock_cfg_test, the_rest_of_a_long_line_is_read_as_a_further_line)
{
    // The first 254 characters are one line; what follows starts a line of its own, which is
    // ignored unless it begins with a key.
    const std::string head = "ap_location=" + std::string(242, 'b');
    auto config = parse_contents(head + "log_level=9\n");
    EXPECT_EQ(std::string(config.services[0].ap_location), std::string(242, 'b'));
    EXPECT_EQ(config.log_level, 9u);

    config = parse_contents(head + "xlog_level=9\n");
    EXPECT_EQ(config.log_level, 0u);
}

TEST_F(websock_cfg_test, comments_blank_lines_and_unknown_keys_are_skipped)
{
    const auto config = parse_contents("# quillon_service_url=ws://h:80/x\n\nunknown=1\n=\nlog_level\n");
    EXPECT_FALSE(config.services[1].enabled);
    EXPECT_EQ(config.log_level, 0u);
    EXPECT_EQ(config.config_error, 0);
}

TEST_F(websock_cfg_test, a_last_line_without_newline_is_read)
{
    const auto config = parse_contents("quillon_service_url=ws://h:80/rrm");
    EXPECT_TRUE(config.services[1].enabled);
    EXPECT_STREQ(config.services[1].path, "/rrm");
}

TEST_F(websock_cfg_test, cut_line_end_returns_the_length_before_the_cut)
{
    char text[] = "abc\r\ndef";
    EXPECT_EQ(cut_line_end(text), 8);
    EXPECT_STREQ(text, "abc");
    char plain[] = "abc";
    EXPECT_EQ(cut_line_end(plain), 3);
    EXPECT_STREQ(plain, "abc");
}

TEST_F(websock_cfg_test, setup_service_config_parses_the_text_after_the_key)
{
    auto config = parse({});
    char line[] = "KEY=ws://host:81/p\n";
    EXPECT_TRUE(config.setup_service_config(WS_INSTANCE_MAC_LIST, line, 4));
    EXPECT_TRUE(config.services[2].enabled);
    EXPECT_STREQ(config.services[2].host, "host");
    EXPECT_STREQ(config.services[2].path, "/p");
    EXPECT_EQ(config.services[2].port, 81);
}

using websock_cfg_death_test = websock_cfg_test;

TEST_F(websock_cfg_death_test, an_unknown_option_exits_with_255)
{
    GTEST_FLAG_SET(death_test_style, fresh_process_death_test_style());
    EXPECT_EXIT(parse({"-x"}), ::testing::ExitedWithCode(255), "");
}

TEST_F(websock_cfg_death_test, an_option_without_its_argument_exits_with_255)
{
    GTEST_FLAG_SET(death_test_style, fresh_process_death_test_style());
    EXPECT_EXIT(parse({"-f"}), ::testing::ExitedWithCode(255), "");
    EXPECT_EXIT(parse({"-d", "h", "-P"}), ::testing::ExitedWithCode(255), "");
}

}  // namespace
