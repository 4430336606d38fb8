// A program run as a child process of a test: its standard output (and, when asked, its
// standard error and input) through pipes, killed and reaped when the object goes, whatever
// happened in between. It knows nothing of GoogleTest, so that the helper programs built
// beside the tests can link it too: a start that fails leaves the reason in failure() for the
// caller to report.
#ifndef ORVD_TESTS_UNIT_SUPPORT_CHILD_PROCESS_H
#define ORVD_TESTS_UNIT_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

// The read end of a pipe, with what came through it that nobody has taken yet.
class pipe_reader {
public:
    using clock_type = std::chrono::steady_clock;

    pipe_reader() = default;
    ~pipe_reader() { close(); }
    pipe_reader(const pipe_reader&) = delete;
    pipe_reader& operator=(const pipe_reader&) = delete;

    // Reads from `fd` (which it closes in the end) from now on; what was pending is dropped.
    void reset(int fd);
    void close();

    // Reads what is there, waiting until `deadline` for something; false at the end of the
    // output or when nothing came in time.
    bool fill(clock_type::time_point deadline);
    // The next line without its newline; false at the end of the output or when no whole line
    // came by `deadline`.
    bool read_line(std::string* line, clock_type::time_point deadline);
    // Everything read and not taken yet, which is taken with it.
    std::string take();
    const std::string& unread() const { return pending; }
    // The writing end is closed (the child has ended, as a rule) and all of it has been read.
    bool ended() const { return at_end; }

private:
    int fd = -1;
    bool at_end = false;
    std::string pending;
};

// Where a child's standard streams lead. Standard output always goes to a pipe.
struct child_streams {
    bool input_pipe = false;  // standard input from child_process::write_input(); else /dev/null
    bool error_pipe = false;  // standard error to child_process::errors(); else to error_file...
    std::string error_file;   // ...when set (emptied first); else to this process's own
};

class child_process {
public:
    child_process() = default;
    ~child_process() { kill_and_reap(); }
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    // Starts command[0], a path, with the rest as its arguments; a process this object still
    // runs is killed first. False, with the reason in failure(), when it cannot start.
    bool start(const std::vector<std::string>& command, const child_streams& streams = child_streams());
    const std::string& failure() const { return why; }

    bool running() const { return process_id > 0; }
    pid_t pid() const { return process_id; }

    pipe_reader& output() { return out; }
    pipe_reader& errors() { return err; }

    // True when the first line of output is "ready", which the test helper programs print
    // once they receive on the bus; false on any other line, the end, or the time-out.
    bool wait_ready(std::chrono::milliseconds limit = std::chrono::seconds(5));

    // False when the child has stopped reading (it ended); its exit status tells why.
    bool write_input(const std::string& text);
    void close_input();

    // Waits up to `limit` for the end: the exit code, or -1 when it still runs, was ended by a
    // signal or was not started.
    int wait_exit(std::chrono::milliseconds limit = std::chrono::seconds(5));
    // Sends `signal_number` (none when 0) and waits up to `limit` for the end; when it has not
    // ended by then it is killed, and the answer is false.
    bool stop(int signal_number, std::chrono::milliseconds limit);
    // The status waitpid() gave for the last run; -1 while it runs and before a start.
    int wait_status() const { return status; }

    // Kills and reaps the process if it still runs, and closes the pipes.
    void kill_and_reap();

private:
    // Reaps the process if it has ended (waiting for that with `block`); false while it runs.
    bool collect(bool block);

    pid_t process_id = -1;
    int status = -1;
    int input_fd = -1;
    pipe_reader out;
    pipe_reader err;
    std::string why;
};

// The program `name` (a path relative to it, such as "../orvd-bus", also does) in the folder
// of the running program: the test helpers are built next to the tests.
std::string program_beside_self(const std::string& name);

#endif
