// orvd-bus from the outside: its arguments, exit statuses, output forms and how it leaves the
// bus. Every test has its own device root; the programs run as child processes.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <string>
#include <vector>

#include "bus_tool.h"
#include "escape.h"

namespace {

using namespace std::chrono_literals;
using bus_test::bus_tool;
using bus_test::eventually;
using bus_test::file_exists;
using bus_test::bus_root;

class orvd_bus_test : public ::testing::Test {
protected:
    // Runs the command to its end; its exit status. Standard output and error are kept.
    int run(const std::vector<std::string>& arguments, const std::string& input = std::string())
    {
        bus_tool tool;
        if (!tool.start(arguments, true))
            return -1;
        tool.write_input(input);  // a child that refuses its arguments reads nothing
        tool.close_input();
        output = tool.read_all();
        const int status = tool.wait_exit();
        errors = tool.errors();
        return status;
    }

    bool start_listening(bus_tool& tool, const std::vector<std::string>& arguments)
    {
        if (!tool.start(arguments))
            return false;
        const bool ready = tool.wait_ready();
        EXPECT_TRUE(ready) << tool.errors();
        return ready;
    }

    std::string socket(int module) const { return root.module_socket(module); }

    bus_root root;
    std::string output;
    std::string errors;
};

std::string every_byte_value()
{
    std::string bytes;
    for (int value = 0; value < 256; ++value)
        bytes.push_back(static_cast<char>(value));
    return bytes;
}

TEST_F(orvd_bus_test, help_prints_the_usage_with_status_0)
{
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_EQ(output.rfind("usage: orvd-bus send --to M", 0), 0u) << output;
    EXPECT_NE(output.find("Escaped line"), std::string::npos);
    EXPECT_EQ(run({"listen", "--help"}), 0);
    EXPECT_EQ(output.rfind("usage:", 0), 0u);
}

TEST_F(orvd_bus_test, bad_arguments_print_the_usage_on_standard_error_with_status_2)
{
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"talk"},
        {"send", "--text", "x"},
        {"send", "--to", "3"},
        {"send", "--to", "3", "--text", "x", "--stdin"},
        {"send", "--to", "0", "--text", "x"},
        {"send", "--to", "65536", "--text", "x"},
        {"send", "--to", "3x", "--text", "x"},
        {"send", "--to"},
        {"listen"},
        {"listen", "--as", "3", "--count", "0"},
        {"listen", "--as", "3", "--timeout", "-1"},
        {"listen", "--as", "3", "--timeout", "0"},
        {"listen", "--as", "3", "--verbose"},
        {"peer", "--as", "3"},
        {"peer", "--to", "2"},
        {"peer", "--as", "3", "--to", "2", "--linger", "soon"},
    };
    for (const auto& arguments : bad) {
        std::string line;
        for (const auto& argument : arguments)
            line += argument + " ";
        EXPECT_EQ(run(arguments), 2) << line;
        EXPECT_EQ(output, "") << line;
        EXPECT_NE(errors.find("usage: orvd-bus"), std::string::npos) << line << errors;
    }
}

TEST_F(orvd_bus_test, sending_to_a_module_that_is_not_on_the_bus_fails_with_status_1)
{
    EXPECT_EQ(run({"send", "--to", "3", "--text", "anyone?"}), 1);
    EXPECT_NE(errors.find("module 3 is not on the bus"), std::string::npos) << errors;
}

TEST_F(orvd_bus_test, listen_prints_each_raw_payload_followed_by_a_newline)
{
    bus_tool widsd;
    ASSERT_TRUE(start_listening(widsd, {"listen", "--as", "3", "--count", "3", "--timeout", "20"}));
    const std::string file = root.path() + "/payload";
    const std::string file_bytes("two\nlines\0", 10);
    {
        std::ofstream out(file, std::ios::binary);
        out << file_bytes;
    }
    EXPECT_EQ(run({"send", "--to", "3", "--text", "{\"cmd\":\"scan\"}"}), 0) << errors;
    EXPECT_EQ(run({"send", "--to", "3", "--file", file}), 0) << errors;
    EXPECT_EQ(run({"send", "--to", "3", "--stdin"}, ""), 0) << errors;
    EXPECT_EQ(widsd.read_all(), "{\"cmd\":\"scan\"}\n" + file_bytes + "\n" + "\n");
    EXPECT_EQ(widsd.wait_exit(), 0) << widsd.errors();
    EXPECT_FALSE(file_exists(socket(3)));
}

TEST_F(orvd_bus_test, listen_escaped_prints_one_line_per_message)
{
    bus_tool widsd;
    ASSERT_TRUE(
        start_listening(widsd, {"listen", "--as", "3", "--escaped", "--count", "3", "--timeout", "20"}));
    EXPECT_EQ(run({"send", "--to", "3", "--stdin"}, every_byte_value()), 0) << errors;
    EXPECT_EQ(run({"send", "--to", "3", "--text", ""}), 0) << errors;
    EXPECT_EQ(run({"send", "--to", "3", "--text", "a\\b"}), 0) << errors;
    EXPECT_EQ(widsd.read_all(), bus_escape::escape(every_byte_value()) + "\n\na\\\\b\n");
    EXPECT_EQ(widsd.wait_exit(), 0);
}

TEST_F(orvd_bus_test, listen_fails_with_status_1_when_the_module_is_taken)
{
    bus_tool owner;
    ASSERT_TRUE(start_listening(owner, {"listen", "--as", "3", "--timeout", "20"}));
    EXPECT_EQ(run({"listen", "--as", "3", "--timeout", "5"}), 1);
    EXPECT_NE(errors.find("cannot register as module 3"), std::string::npos) << errors;
    EXPECT_TRUE(file_exists(socket(3)));  // still the owner's
}

TEST_F(orvd_bus_test, listen_ends_after_its_timeout_with_status_0)
{
    const auto started = bus_test::steady::now();
    EXPECT_EQ(run({"listen", "--as", "3", "--timeout", "0.3"}), 0) << errors;
    EXPECT_GE(bus_test::elapsed_ms(started), 300);
    EXPECT_FALSE(file_exists(socket(3)));
}

TEST_F(orvd_bus_test, termination_signals_make_listen_leave_the_bus_with_status_0)
{
    for (const int signal_number : {SIGTERM, SIGINT}) {
        bus_tool widsd;
        ASSERT_TRUE(start_listening(widsd, {"listen", "--as", "3"}));
        ASSERT_TRUE(file_exists(socket(3)));
        EXPECT_EQ(widsd.stop_with(signal_number), 0) << widsd.errors();
        EXPECT_FALSE(file_exists(socket(3))) << signal_number;
    }
}

TEST_F(orvd_bus_test, send_as_a_module_holds_it_only_for_the_send)
{
    bus_tool widsd;
    ASSERT_TRUE(start_listening(widsd, {"listen", "--as", "3", "--escaped", "--timeout", "20"}));
    EXPECT_EQ(run({"send", "--to", "3", "--as", "7", "--text", "from 7"}), 0) << errors;
    std::string line;
    ASSERT_TRUE(widsd.read_line(&line));
    EXPECT_EQ(line, "from 7");
    EXPECT_FALSE(file_exists(socket(7)));

    // A module that is taken cannot be sent as.
    EXPECT_EQ(run({"send", "--to", "7", "--as", "3", "--text", "x"}), 1);
    EXPECT_NE(errors.find("cannot register as module 3"), std::string::npos) << errors;
}

TEST_F(orvd_bus_test, peer_sends_each_input_line_and_prints_each_message_escaped)
{
    bus_tool far_end;
    ASSERT_TRUE(start_listening(far_end, {"listen", "--as", "6", "--escaped", "--timeout", "20"}));
    bus_tool peer;
    ASSERT_TRUE(peer.start({"peer", "--as", "5", "--to", "6", "--linger", "0.2"}, true));
    ASSERT_TRUE(peer.wait_ready()) << peer.errors();

    ASSERT_TRUE(peer.write_input("hello\n\n" + bus_escape::escape(every_byte_value()) + "\n"));
    std::string line;
    ASSERT_TRUE(far_end.read_line(&line));
    EXPECT_EQ(line, "hello");
    ASSERT_TRUE(far_end.read_line(&line));
    EXPECT_EQ(line, "");
    ASSERT_TRUE(far_end.read_line(&line));
    EXPECT_EQ(line, bus_escape::escape(every_byte_value()));

    EXPECT_EQ(run({"send", "--to", "5", "--stdin"}, "back\n\xff"), 0) << errors;
    ASSERT_TRUE(peer.read_line(&line));
    EXPECT_EQ(line, "back\\n\\xff");

    peer.close_input();
    EXPECT_EQ(peer.wait_exit(), 0) << peer.errors();
    EXPECT_FALSE(file_exists(socket(5)));
}

TEST_F(orvd_bus_test, peer_sends_a_last_line_without_its_newline)
{
    bus_tool far_end;
    ASSERT_TRUE(
        start_listening(far_end, {"listen", "--as", "6", "--escaped", "--count", "2", "--timeout", "20"}));
    EXPECT_EQ(run({"peer", "--as", "5", "--to", "6", "--linger", "0"}, "one\ntwo"), 0) << errors;
    EXPECT_EQ(far_end.read_all(), "one\ntwo\n");
}

TEST_F(orvd_bus_test, peer_waits_for_a_quiet_linger_after_its_input_ends)
{
    const auto started = bus_test::steady::now();
    EXPECT_EQ(run({"peer", "--as", "5", "--to", "6", "--linger", "0.4"}), 0) << errors;
    EXPECT_GE(bus_test::elapsed_ms(started), 400);
    EXPECT_FALSE(file_exists(socket(5)));
}

TEST_F(orvd_bus_test, peer_refuses_a_malformed_line_with_status_2_naming_it)
{
    bus_tool far_end;
    ASSERT_TRUE(start_listening(far_end, {"listen", "--as", "6", "--escaped", "--timeout", "20"}));
    EXPECT_EQ(run({"peer", "--as", "5", "--to", "6"}, "fine\nstill fine\nbad \\q here\nnever sent\n"), 2);
    EXPECT_NE(errors.find("line 3: column 5: unknown escape \\q"), std::string::npos) << errors;
    std::string line;
    ASSERT_TRUE(far_end.read_line(&line));
    EXPECT_EQ(line, "fine");
    ASSERT_TRUE(far_end.read_line(&line));
    EXPECT_EQ(line, "still fine");
    EXPECT_TRUE(far_end.output_quiet(200ms));
    EXPECT_FALSE(file_exists(socket(5)));
}

TEST_F(orvd_bus_test, peer_reports_undelivered_lines_with_status_1)
{
    EXPECT_EQ(run({"peer", "--as", "5", "--to", "6", "--linger", "0"}, "lost\n"), 1);
    EXPECT_NE(errors.find("line 1: module 6 is not on the bus"), std::string::npos) << errors;
}

TEST_F(orvd_bus_test, termination_signals_make_peer_leave_the_bus_with_status_0)
{
    for (const int signal_number : {SIGTERM, SIGINT}) {
        bus_tool peer;
        ASSERT_TRUE(peer.start({"peer", "--as", "5", "--to", "6"}, true));
        ASSERT_TRUE(peer.wait_ready()) << peer.errors();
        EXPECT_EQ(peer.stop_with(signal_number), 0) << peer.errors();
        EXPECT_FALSE(file_exists(socket(5))) << signal_number;
    }
}

TEST_F(orvd_bus_test, peer_carries_thousands_of_messages_in_order)
{
    constexpr int messages = 3000;
    bus_tool far_end;
    ASSERT_TRUE(start_listening(far_end, {"listen", "--as", "6", "--escaped", "--count",
                                          std::to_string(messages), "--timeout", "20"}));
    std::string lines;
    for (int i = 0; i < messages; ++i)
        lines += "message " + std::to_string(i) + " \\x00\\xff\n";
    bus_tool peer;
    ASSERT_TRUE(peer.start({"peer", "--as", "5", "--to", "6", "--linger", "0"}, true));
    ASSERT_TRUE(peer.write_input(lines));
    peer.close_input();
    EXPECT_EQ(far_end.read_all(10000ms), lines);
    EXPECT_EQ(far_end.wait_exit(), 0) << far_end.errors();
    EXPECT_EQ(peer.wait_exit(), 0) << peer.errors();
}

}  // namespace
