// build/libvrtl.so preloaded into a program that knows nothing of vrtl: the way the unchanged
// daemon runs against the virtual access point.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "driver_test_support.h"

extern char** environ;

namespace {

struct run_result {
    int status = -1;
    std::string output;
};

// A sanitizer runtime that this test program is linked with (and so the probe, built alike),
// which must come first in LD_PRELOAD; "" in a normal build.
std::string sanitizer_runtime()
{
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        const size_t slash = line.find('/');
        if (slash == std::string::npos)
            continue;
        const std::string path = line.substr(slash);
        const std::string name = path.substr(path.rfind('/') + 1);
        if (name.rfind("libasan.so", 0) == 0 || name.rfind("libtsan.so", 0) == 0)
            return path;
    }
    return "";
}

// Runs the probe with the given extra environment; its exit status and standard output.
run_result run_probe(const std::string& ifname, const std::vector<std::string>& extra_environment)
{
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry)
        if (std::string(*entry).rfind("LD_PRELOAD=", 0) != 0)
            environment.push_back(*entry);
    environment.insert(environment.end(), extra_environment.begin(), extra_environment.end());
    std::vector<char*> envp;
    for (auto& entry : environment)
        envp.push_back(&entry[0]);
    envp.push_back(nullptr);

    std::string program = VRTL_PRELOAD_PROBE;
    std::string argument = ifname;
    char* argv[] = {&program[0], &argument[0], nullptr};

    run_result result;
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0)
        return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(pipe_fds[1]);
    if (spawned == 0) {
        char buffer[4096];
        ssize_t got;
        while ((got = read(pipe_fds[0], buffer, sizeof buffer)) > 0)
            result.output.append(buffer, static_cast<size_t>(got));
        int status = 0;
        waitpid(pid, &status, 0);
        result.status = status;
    }
    close(pipe_fds[0]);
    return result;
}

class preload_test : public driver_test::driver_fixture {
protected:
    void SetUp() override
    {
        driver_fixture::SetUp();
        write_state("wlan0", R"({"chanspec": 4358,
            "scan_results": [
              {"bssid": "02:11:22:33:44:01", "rssi": -61, "channel": 6, "bandwidth": 20, "chanspec": 4102},
              {"bssid": "02:11:22:33:44:9a", "rssi": -80, "channel": 11, "bandwidth": 40, "chanspec": 6411}]})");
    }

    std::string preload() const
    {
        const std::string runtime = sanitizer_runtime();
        return "LD_PRELOAD=" + (runtime.empty() ? "" : runtime + ":") + VRTL_PRELOAD_LIBRARY;
    }
};

TEST_F(preload_test, the_preloaded_library_answers_a_program_that_knows_nothing_of_it)
{
    const run_result result = run_probe("wlan0", {"ORVD_ROOT=" + root.path(), preload()});
    ASSERT_TRUE(WIFEXITED(result.status)) << result.output;
    EXPECT_EQ(WEXITSTATUS(result.status), 0);
    EXPECT_EQ(result.output, "chanspec 0 4358\n"
                             "scan 0 2\n"
                             "ap 02:11:22:33:44:01 -61 6 20 0\n"
                             "ap 02:11:22:33:44:9a -80 11 40 256\n");
}

TEST_F(preload_test, without_the_library_the_probe_reaches_the_kernel_and_fails)
{
    const run_result result = run_probe("wlan0", {"ORVD_ROOT=" + root.path()});
    ASSERT_TRUE(WIFEXITED(result.status)) << result.output;
    EXPECT_EQ(WEXITSTATUS(result.status), 0);
    EXPECT_EQ(result.output, "chanspec -1 0\nscan -1 0\n");
}

}  // namespace
