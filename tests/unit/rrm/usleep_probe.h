// The pauses a worker thread asks usleep for. unit_rrm is linked with --wrap=usleep, so every
// usleep call of the daemon's own code passes through the probe on its way to the C library.
#ifndef ORVD_TESTS_UNIT_RRM_USLEEP_PROBE_H
#define ORVD_TESTS_UNIT_RRM_USLEEP_PROBE_H

#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <vector>

// Records, while it lives, the argument of every usleep made by threads of one name (as the
// kernel keeps it: at most 15 characters). One recorder at a time.
class usleep_recorder {
public:
    explicit usleep_recorder(const char* thread_name);
    ~usleep_recorder();
    usleep_recorder(const usleep_recorder&) = delete;
    usleep_recorder& operator=(const usleep_recorder&) = delete;

    // The pauses asked for so far, oldest first.
    std::vector<useconds_t> pauses() const;
    // Waits until at least `count` pauses were asked for; false when `limit` passes first.
    bool wait_for(size_t count, std::chrono::milliseconds limit) const;
};

#endif
