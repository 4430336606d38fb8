// The WIDS bus bridge against the real host bus: orvd-bus, started from the build folder, plays
// widsd (module 3) or a rival for module 2 in a process of its own.
#include "transport/ipc_worker.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../tools/bus_tool.h"
#include "core/run_flags.h"
#include "log_capture.h"
#include "msgbus.h"

namespace {

using namespace std::chrono_literals;
using bus_test::bus_tool;
using bus_test::elapsed_ms;
using bus_test::eventually;
using bus_test::file_exists;
using bus_test::steady;
using bus_test::bus_root;

// Runs one orvd-bus command to its end; its exit status.
int run_bus_tool(const std::vector<std::string>& arguments)
{
    bus_tool tool;
    if (!tool.start(arguments))
        return -1;
    const int status = tool.wait_exit();
    EXPECT_EQ(status, 0) << tool.errors();
    return status;
}

// Starts `orvd-bus listen` as widsd: one escaped line per message, or the raw payloads.
bool start_widsd(bus_tool& tool, bool escaped = true, int count = 0)
{
    std::vector<std::string> arguments{"listen", "--as", "3", "--timeout", "20"};
    if (escaped)
        arguments.push_back("--escaped");
    if (count > 0) {
        arguments.push_back("--count");
        arguments.push_back(std::to_string(count));
    }
    if (!tool.start(arguments))
        return false;
    const bool ready = tool.wait_ready();
    EXPECT_TRUE(ready) << tool.errors();
    return ready;
}

std::shared_ptr<buffer_info_t> buffer_of(const std::string& bytes)
{
    auto buffer = std::make_shared<buffer_info_t>();
    buffer->append(bytes.data(), static_cast<unsigned>(bytes.size()));
    return buffer;
}

// The front buffer of the queue, or false when the queue is empty.
bool take(safe_queue& queue, std::shared_ptr<buffer_info_t>* buffer)
{
    return queue.dequeue([buffer](const std::shared_ptr<buffer_info_t>& item) { *buffer = item; });
}

std::string text_of(const buffer_info_t& buffer)
{
    return buffer.size == 0 ? std::string() : std::string(buffer.data, buffer.size);
}

// Every byte value in turn, repeated to the size asked for.
std::string binary_payload(size_t size)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 7 + i / 256) & 0xFF);
    return bytes;
}

// The worker with its protected round and settings within reach.
class exposed_ipc_worker : public ipc_worker {
public:
    exposed_ipc_worker(safe_queue& to_daemon, safe_queue& from_daemon, const volatile bool& run_flag)
        : ipc_worker(to_daemon, from_daemon, IPC_MODULE_WIDS_BRIDGE, run_flag)
    {
    }

    using ipc_worker::condition;
    using ipc_worker::execute;

    int execute_pause() const { return execute_pause_us; }
    int reconnect_pause() const { return reconnect_pause_us; }
    // Set before start() only.
    void set_reconnect_pause(int microseconds) { reconnect_pause_us = microseconds; }
};

// The worker's own thread for the object's life: started at once, stopped through the run
// flag and joined on every path.
class worker_thread {
public:
    worker_thread(abstract_worker& started_worker, volatile bool& run_flag)
        : worker(started_worker), run(run_flag)
    {
        write_run_flag(run, true);
        worker.start();
    }
    ~worker_thread() { stop(); }
    worker_thread(const worker_thread&) = delete;
    worker_thread& operator=(const worker_thread&) = delete;

    void stop()
    {
        write_run_flag(run, false);
        worker.join();
    }

private:
    abstract_worker& worker;
    volatile bool& run;
};

class ipc_worker_test : public ::testing::Test {
protected:
    void TearDown() override { FreeLibParams(); }

    // Runs rounds until one moves a bus message (from_websock must be empty).
    bool execute_until_busy(exposed_ipc_worker& worker, std::chrono::milliseconds limit = 3000ms)
    {
        return eventually([&worker] { return !worker.execute(); }, limit);
    }

    bool bus_has_module(int module) const { return file_exists(root.module_socket(module)); }

    // Declared first: ORVD_ROOT is set before anything touches the bus.
    bus_root root;
    safe_queue to_websock;
    safe_queue from_websock;
    volatile bool run = true;
};

TEST_F(ipc_worker_test, idles_when_both_directions_are_empty_and_pauses_100_ms)
{
    exposed_ipc_worker worker(to_websock, from_websock, run);
    EXPECT_EQ(worker.get_name(), "ipc");
    EXPECT_EQ(worker.execute_pause(), 100000);
    EXPECT_EQ(worker.reconnect_pause(), 1000000);
    ASSERT_TRUE(worker.connect());
    EXPECT_TRUE(worker.condition(run));
    EXPECT_TRUE(worker.execute());
    EXPECT_TRUE(worker.execute());
    std::shared_ptr<buffer_info_t> buffer;
    EXPECT_FALSE(take(to_websock, &buffer));
}

TEST_F(ipc_worker_test, connect_registers_as_module_2_and_receives)
{
    exposed_ipc_worker worker(to_websock, from_websock, run);
    ASSERT_TRUE(worker.connect());
    EXPECT_TRUE(bus_has_module(2));
    EXPECT_NE(GetModuleLoop(), 0);
    EXPECT_EQ(worker.route_message(*buffer_of("x")), IPC_MODULE_WIDSD);

    ASSERT_EQ(run_bus_tool({"send", "--to", "2", "--as", "3", "--text", "{\"cmd\":\"hello\"}"}), 0);
    ASSERT_TRUE(execute_until_busy(worker));
    std::shared_ptr<buffer_info_t> buffer;
    ASSERT_TRUE(take(to_websock, &buffer));
    EXPECT_EQ(text_of(*buffer), "{\"cmd\":\"hello\"}");
}

TEST_F(ipc_worker_test, messages_queued_while_the_thread_idles_reach_module_3_soon_and_in_order)
{
    bus_tool widsd;
    ASSERT_TRUE(start_widsd(widsd));
    exposed_ipc_worker worker(to_websock, from_websock, run);
    worker_thread thread(worker, run);
    ASSERT_TRUE(eventually([this] { return bus_has_module(2); }));
    std::this_thread::sleep_for(250ms);  // a few idle rounds

    const steady::time_point queued = steady::now();
    from_websock.enqueue(buffer_of("first"));
    std::string line;
    ASSERT_TRUE(widsd.read_line(&line)) << widsd.errors();
    EXPECT_EQ(line, "first");
    EXPECT_LT(elapsed_ms(queued), 1000);

    std::this_thread::sleep_for(150ms);
    for (int i = 0; i < 5; ++i)
        from_websock.enqueue(buffer_of("batch-" + std::to_string(i)));
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(widsd.read_line(&line)) << i;
        EXPECT_EQ(line, "batch-" + std::to_string(i));
    }
    EXPECT_TRUE(widsd.output_quiet(100ms));
}

TEST_F(ipc_worker_test, a_bus_burst_moves_one_message_per_round_before_queued_buffers_are_sent)
{
    bus_tool widsd;
    ASSERT_TRUE(start_widsd(widsd));
    exposed_ipc_worker worker(to_websock, from_websock, run);
    ASSERT_TRUE(worker.connect());

    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(run_bus_tool({"send", "--to", "2", "--text", "bus-" + std::to_string(i)}), 0);
    from_websock.enqueue(buffer_of("ws-0"));
    from_websock.enqueue(buffer_of("ws-1"));
    // Each send has returned, so its datagram is in module 2's socket; give the bus's receiver
    // a moment to move them all into the queue.
    std::this_thread::sleep_for(200ms);

    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(worker.execute()) << "round " << i;
        std::shared_ptr<buffer_info_t> buffer;
        ASSERT_TRUE(take(to_websock, &buffer)) << "round " << i;
        EXPECT_EQ(text_of(*buffer), "bus-" + std::to_string(i));
        EXPECT_FALSE(take(to_websock, &buffer)) << "more than one message in round " << i;
        EXPECT_TRUE(widsd.output_quiet(0ms)) << "module 3 heard something in round " << i;
    }
    EXPECT_TRUE(widsd.output_quiet(150ms));

    std::string line;
    EXPECT_FALSE(worker.execute());
    ASSERT_TRUE(widsd.read_line(&line));
    EXPECT_EQ(line, "ws-0");
    EXPECT_FALSE(worker.execute());
    ASSERT_TRUE(widsd.read_line(&line));
    EXPECT_EQ(line, "ws-1");
    EXPECT_TRUE(worker.execute());
    std::shared_ptr<buffer_info_t> buffer;
    EXPECT_FALSE(take(to_websock, &buffer));
}

TEST_F(ipc_worker_test, an_empty_buffer_from_the_websocket_side_is_consumed_without_sending)
{
    bus_tool widsd;
    ASSERT_TRUE(start_widsd(widsd));
    exposed_ipc_worker worker(to_websock, from_websock, run);
    ASSERT_TRUE(worker.connect());

    from_websock.enqueue(std::make_shared<buffer_info_t>());
    EXPECT_FALSE(worker.execute());
    std::shared_ptr<buffer_info_t> left;
    EXPECT_FALSE(take(from_websock, &left));

    from_websock.enqueue(buffer_of("after"));
    EXPECT_FALSE(worker.execute());
    std::string line;
    ASSERT_TRUE(widsd.read_line(&line));
    EXPECT_EQ(line, "after");  // an empty message would have come first, as an empty line
    EXPECT_TRUE(widsd.output_quiet(150ms));
}

TEST_F(ipc_worker_test, an_empty_bus_message_is_queued_as_an_empty_buffer)
{
    exposed_ipc_worker worker(to_websock, from_websock, run);
    ASSERT_TRUE(worker.connect());
    ASSERT_EQ(run_bus_tool({"send", "--to", "2", "--text", ""}), 0);
    ASSERT_TRUE(execute_until_busy(worker));
    std::shared_ptr<buffer_info_t> buffer;
    ASSERT_TRUE(take(to_websock, &buffer));
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->size, 0u);
    EXPECT_FALSE(take(to_websock, &buffer));
}

TEST_F(ipc_worker_test, bus_payloads_reach_the_websocket_queue_byte_for_byte)
{
    exposed_ipc_worker worker(to_websock, from_websock, run);
    ASSERT_TRUE(worker.connect());
    for (const size_t size : {size_t{256}, size_t{256 * 1024}}) {
        const std::string payload = binary_payload(size);
        const std::string file = root.path() + "/payload";
        {
            std::ofstream out(file, std::ios::binary | std::ios::trunc);
            out.write(payload.data(), static_cast<std::streamsize>(payload.size()));
            ASSERT_TRUE(out.good());
        }
        ASSERT_EQ(run_bus_tool({"send", "--to", "2", "--file", file}), 0);
        ASSERT_TRUE(execute_until_busy(worker)) << size;
        std::shared_ptr<buffer_info_t> buffer;
        ASSERT_TRUE(take(to_websock, &buffer));
        ASSERT_EQ(buffer->size, size);
        EXPECT_TRUE(text_of(*buffer) == payload) << "payload of " << size << " bytes changed";
        EXPECT_EQ(buffer->data[size], '\0');
    }
}

TEST_F(ipc_worker_test, queued_payloads_reach_module_3_byte_for_byte)
{
    const std::string all_bytes = binary_payload(256);
    const std::string large = binary_payload(256 * 1024);
    bus_tool widsd;
    ASSERT_TRUE(start_widsd(widsd, false, 2));
    exposed_ipc_worker worker(to_websock, from_websock, run);
    ASSERT_TRUE(worker.connect());

    from_websock.enqueue(buffer_of(all_bytes));
    from_websock.enqueue(buffer_of(large));
    EXPECT_FALSE(worker.execute());
    EXPECT_FALSE(worker.execute());
    const std::string heard = widsd.read_all();
    EXPECT_EQ(widsd.wait_exit(), 0) << widsd.errors();
    ASSERT_EQ(heard.size(), all_bytes.size() + 1 + large.size() + 1);
    EXPECT_TRUE(heard == all_bytes + "\n" + large + "\n") << "a payload changed on its way";
}

TEST_F(ipc_worker_test, the_trailing_zero_of_a_buffer_is_not_sent)
{
    bus_tool widsd;
    ASSERT_TRUE(start_widsd(widsd, false, 1));
    exposed_ipc_worker worker(to_websock, from_websock, run);
    ASSERT_TRUE(worker.connect());

    auto buffer = buffer_of("abc");
    ASSERT_EQ(buffer->size, 3u);
    ASSERT_EQ(buffer->data[3], '\0');
    from_websock.enqueue(buffer);
    EXPECT_FALSE(worker.execute());
    EXPECT_EQ(widsd.read_all(), "abc\n");  // raw output: the payload, then the tool's newline
    EXPECT_EQ(widsd.wait_exit(), 0);
}

TEST_F(ipc_worker_test, connect_fails_while_another_process_holds_module_2)
{
    bus_tool rival;
    ASSERT_TRUE(rival.start({"listen", "--as", "2", "--escaped", "--timeout", "20"}));
    ASSERT_TRUE(rival.wait_ready()) << rival.errors();

    exposed_ipc_worker worker(to_websock, from_websock, run);
    EXPECT_FALSE(worker.connect());
    EXPECT_EQ(GetModuleLoop(), 0);
    EXPECT_FALSE(worker.condition(run));

    // Module 2 still belongs to the rival.
    ASSERT_EQ(run_bus_tool({"send", "--to", "2", "--text", "for the owner"}), 0);
    std::string line;
    ASSERT_TRUE(rival.read_line(&line));
    EXPECT_EQ(line, "for the owner");
}

TEST_F(ipc_worker_test, retries_every_reconnect_pause_until_module_2_is_free_then_forwards)
{
    bus_tool rival;
    ASSERT_TRUE(rival.start({"listen", "--as", "2", "--timeout", "20"}));
    ASSERT_TRUE(rival.wait_ready()) << rival.errors();
    bus_tool widsd;
    ASSERT_TRUE(start_widsd(widsd));

    log_capture log;
    auto attempts = [&log] {
        int count = 0;
        for (const auto& text : log.texts())
            if (text.find("module 2 is taken") != std::string::npos)
                ++count;
        return count;
    };
    exposed_ipc_worker worker(to_websock, from_websock, run);
    worker.set_reconnect_pause(200000);
    worker_thread thread(worker, run);
    std::this_thread::sleep_for(1000ms);
    const int tried = attempts();
    EXPECT_GE(tried, 3);  // about one attempt every 200 ms
    EXPECT_LE(tried, 7);

    EXPECT_EQ(rival.terminate(), 0) << rival.errors();
    from_websock.enqueue(buffer_of("once module 2 is free"));
    std::string line;
    ASSERT_TRUE(widsd.read_line(&line, 3000ms)) << widsd.errors();
    EXPECT_EQ(line, "once module 2 is free");
    EXPECT_TRUE(bus_has_module(2));
}

TEST_F(ipc_worker_test, a_stopped_peer_makes_the_thread_reconnect_and_forward_again)
{
    bus_tool widsd;
    ASSERT_TRUE(start_widsd(widsd));
    exposed_ipc_worker worker(to_websock, from_websock, run);
    worker_thread thread(worker, run);
    ASSERT_TRUE(eventually([this] { return bus_has_module(2); }));
    from_websock.enqueue(buffer_of("before"));
    std::string line;
    ASSERT_TRUE(widsd.read_line(&line));
    EXPECT_EQ(line, "before");

    ModulePeerStop();  // the loop flag drops, as when the bus socket fails
    ASSERT_TRUE(eventually([this] { return !bus_has_module(2); })) << "the worker did not leave the bus";
    const steady::time_point left = steady::now();
    ASSERT_TRUE(eventually([this] { return bus_has_module(2); }, 5000ms)) << "the worker did not come back";
    EXPECT_GE(elapsed_ms(left), 900);  // after the reconnect pause

    from_websock.enqueue(buffer_of("after"));
    ASSERT_TRUE(widsd.read_line(&line));
    EXPECT_EQ(line, "after");
    ASSERT_EQ(run_bus_tool({"send", "--to", "2", "--text", "inbound"}), 0);
    std::shared_ptr<buffer_info_t> buffer;
    ASSERT_TRUE(eventually([&] { return take(to_websock, &buffer); }));
    EXPECT_EQ(text_of(*buffer), "inbound");
}

TEST_F(ipc_worker_test, destroying_a_connected_worker_leaves_the_bus)
{
    {
        exposed_ipc_worker worker(to_websock, from_websock, run);
        ASSERT_TRUE(worker.connect());
        ASSERT_TRUE(bus_has_module(2));
    }
    EXPECT_FALSE(bus_has_module(2));
    EXPECT_EQ(GetModuleLoop(), 0);

    bus_tool successor;
    ASSERT_TRUE(successor.start({"listen", "--as", "2", "--timeout", "20"}));
    EXPECT_TRUE(successor.wait_ready()) << successor.errors();
    EXPECT_EQ(successor.terminate(), 0);
}

TEST_F(ipc_worker_test, clearing_the_run_flag_ends_the_thread_promptly)
{
    exposed_ipc_worker worker(to_websock, from_websock, run);
    worker_thread thread(worker, run);
    ASSERT_TRUE(eventually([this] { return bus_has_module(2); }));
    std::this_thread::sleep_for(250ms);

    const steady::time_point stopping = steady::now();
    thread.stop();
    EXPECT_LT(elapsed_ms(stopping), 1000);
    EXPECT_FALSE(bus_has_module(2));  // the loop disconnected on its way out
}

TEST_F(ipc_worker_test, a_thousand_messages_pass_both_ways_in_order)
{
    // Below the bus's receive queue of 1024 messages: the whole burst may arrive during one idle
    // pause of the worker.
    constexpr int messages = 1000;
    bus_tool widsd;
    ASSERT_TRUE(widsd.start({"peer", "--as", "3", "--to", "2", "--linger", "0.2"}, true));
    ASSERT_TRUE(widsd.wait_ready()) << widsd.errors();
    exposed_ipc_worker worker(to_websock, from_websock, run);
    worker_thread thread(worker, run);
    ASSERT_TRUE(eventually([this] { return bus_has_module(2); }));

    std::string lines;
    for (int i = 0; i < messages; ++i)
        lines += "up-" + std::to_string(i) + "\n";
    ASSERT_TRUE(widsd.write_input(lines));
    for (int i = 0; i < messages; ++i)
        from_websock.enqueue(buffer_of("down-" + std::to_string(i)));

    int up = 0;
    const steady::time_point start = steady::now();
    while (up < messages && elapsed_ms(start) < 10000) {
        std::shared_ptr<buffer_info_t> buffer;
        if (!take(to_websock, &buffer)) {
            std::this_thread::sleep_for(1ms);
            continue;
        }
        ASSERT_EQ(text_of(*buffer), "up-" + std::to_string(up));
        ++up;
    }
    EXPECT_EQ(up, messages);
    for (int i = 0; i < messages; ++i) {
        std::string line;
        ASSERT_TRUE(widsd.read_line(&line)) << i;
        ASSERT_EQ(line, "down-" + std::to_string(i));
    }
    widsd.close_input();
    EXPECT_EQ(widsd.wait_exit(), 0) << widsd.errors();
}

}  // namespace
