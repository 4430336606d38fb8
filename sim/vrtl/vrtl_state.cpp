#include "vrtl_state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>

#include "device_root.h"
#include "vrtl_radio.h"

namespace vrtl {

namespace {

constexpr int json_flags_file = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE;
constexpr int json_flags_compact = JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE;

std::string state_directory()
{
    return device_path("/sim/vrtl");
}

std::string lock_path(const std::string& radio)
{
    return device_path("/sim/vrtl/" + radio + ".lock");
}

bool file_exists(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// mkdir -p: the state directory lies below a root that tests make fresh.
bool make_directories(const std::string& path)
{
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string part = path.substr(0, slash);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
        if (slash == std::string::npos)
            return true;
    }
}

// Reads the whole state of a radio under its lock; null when there is none or it is bad.
json_object* load_locked(const std::string& radio)
{
    const std::string path = state_path(radio);
    if (!file_exists(path))
        return nullptr;
    const int lock_fd = lock_radio(radio);
    json_object* state = json_object_from_file(path.c_str());
    unlock_radio(lock_fd);
    return state;
}

std::mutex& observer_lock()
{
    static std::mutex lock;
    return lock;
}

request_observer& observer()
{
    static request_observer function;
    return function;
}

}  // namespace

std::string radio_of(const std::string& ifname)
{
    return ifname.substr(0, ifname.find('-'));
}

bool is_vap(const std::string& ifname)
{
    return ifname.find('-') != std::string::npos;
}

std::string state_path(const std::string& radio)
{
    return device_path("/sim/vrtl/" + radio + ".json");
}

bool write_state(const std::string& radio, const std::string& json_text)
{
    json_tokener* tokener = json_tokener_new();
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT);
    json_object* state =
        json_tokener_parse_ex(tokener, json_text.c_str(), static_cast<int>(json_text.size()));
    const bool parsed = json_tokener_get_error(tokener) == json_tokener_success;
    json_tokener_free(tokener);
    if (!parsed || !json_object_is_type(state, json_type_object)) {
        json_object_put(state);
        return false;
    }
    bool written = false;
    if (make_directories(state_directory())) {
        const int lock_fd = lock_radio(radio);
        written = lock_fd >= 0 && save_state(state_path(radio), state);
        unlock_radio(lock_fd);
    }
    json_object_put(state);
    return written;
}

std::string read_state(const std::string& radio)
{
    json_object* state = load_locked(radio);
    if (state == nullptr)
        return "";
    std::string text = json_object_to_json_string_ext(state, json_flags_compact);
    json_object_put(state);
    return text;
}

std::string read_value(const std::string& radio, const std::string& dotted_path)
{
    json_object* state = load_locked(radio);
    if (state == nullptr)
        return "";
    json_object* at = state;
    size_t start = 0;
    while (at != nullptr) {
        const size_t dot = dotted_path.find('.', start);
        at = member(at, dotted_path.substr(start, dot - start).c_str());
        if (dot == std::string::npos)
            break;
        start = dot + 1;
    }
    std::string text = at == nullptr ? "" : json_object_to_json_string_ext(at, json_flags_compact);
    json_object_put(state);
    return text;
}

void remove_state(const std::string& radio)
{
    const int lock_fd = lock_radio(radio);
    unlink(state_path(radio).c_str());
    unlock_radio(lock_fd);
}

void set_request_observer(request_observer function)
{
    std::lock_guard<std::mutex> guard(observer_lock());
    observer() = std::move(function);
}

void notify_observer(unsigned long request, const struct iwreq* req)
{
    request_observer function;
    {
        std::lock_guard<std::mutex> guard(observer_lock());
        function = observer();
    }
    if (function)
        function(request, req);
}

int lock_radio(const std::string& radio)
{
    const int fd = ::open(lock_path(radio).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return -1;
    while (flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            close(fd);
            return -1;
        }
    }
    return fd;
}

void unlock_radio(int lock_fd)
{
    // Closing the descriptor releases the lock.
    if (lock_fd >= 0)
        close(lock_fd);
}

bool save_state(const std::string& path, json_object* state)
{
    const std::string temporary = path + ".tmp" + std::to_string(getpid());
    if (json_object_to_file_ext(temporary.c_str(), state, json_flags_file) != 0) {
        unlink(temporary.c_str());
        return false;
    }
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        unlink(temporary.c_str());
        return false;
    }
    return true;
}

radio_file::~radio_file()
{
    json_object_put(state);
    unlock_radio(lock_fd);
}

int radio_file::open(const std::string& radio, std::string* problem)
{
    path = state_path(radio);
    // No lock file is made for a radio that does not exist.
    if (!file_exists(path))
        return ENODEV;
    lock_fd = lock_radio(radio);
    if (lock_fd < 0 || !file_exists(path))
        return ENODEV;
    state = json_object_from_file(path.c_str());
    if (state == nullptr || !json_object_is_type(state, json_type_object)) {
        *problem = "state file " + path + " is not one JSON object";
        return EIO;
    }
    return 0;
}

bool radio_file::save()
{
    return save_state(path, state);
}

json_object* member(json_object* object, const char* key)
{
    json_object* value = nullptr;
    if (!json_object_is_type(object, json_type_object) || !json_object_object_get_ex(object, key, &value))
        return nullptr;
    return value;
}

json_object* object_member(json_object* object, const char* key)
{
    json_object* value = member(object, key);
    if (json_object_is_type(value, json_type_object))
        return value;
    value = json_object_new_object();
    json_object_object_add(object, key, value);
    return value;
}

void count_up(json_object* state, const char* name)
{
    json_object* counters = object_member(state, "counters");
    json_object* value = member(counters, name);
    const int64_t before = json_object_is_type(value, json_type_int) ? json_object_get_int64(value) : 0;
    json_object_object_add(counters, name, json_object_new_int64(before + 1));
}

}  // namespace vrtl
