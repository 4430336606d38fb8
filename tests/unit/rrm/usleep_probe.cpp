#include "usleep_probe.h"

#include <pthread.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>

extern "C" int __real_usleep(useconds_t usec);
extern "C" int __wrap_usleep(useconds_t usec);

namespace {

std::mutex probe_lock;
std::condition_variable probe_changed;
bool recording = false;
std::string wanted_name;
std::vector<useconds_t> recorded;

}  // namespace

extern "C" int __wrap_usleep(useconds_t usec)
{
    char name[16] = {};
    if (pthread_getname_np(pthread_self(), name, sizeof name) == 0) {
        std::lock_guard<std::mutex> guard(probe_lock);
        if (recording && wanted_name == name) {
            recorded.push_back(usec);
            probe_changed.notify_all();
        }
    }
    return __real_usleep(usec);
}

usleep_recorder::usleep_recorder(const char* thread_name)
{
    std::lock_guard<std::mutex> guard(probe_lock);
    recording = true;
    wanted_name = thread_name;
    recorded.clear();
}

usleep_recorder::~usleep_recorder()
{
    std::lock_guard<std::mutex> guard(probe_lock);
    recording = false;
    recorded.clear();
}

std::vector<useconds_t> usleep_recorder::pauses() const
{
    std::lock_guard<std::mutex> guard(probe_lock);
    return recorded;
}

bool usleep_recorder::wait_for(size_t count, std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> guard(probe_lock);
    return probe_changed.wait_for(guard, limit, [count] { return recorded.size() >= count; });
}
