// The emulated driver's side of a radio's state file: locked, read, changed and written back
// within one request.
#ifndef ORVD_SIM_VRTL_RADIO_H
#define ORVD_SIM_VRTL_RADIO_H

#include <json-c/json.h>

#include <string>

namespace vrtl {

class radio_file {
public:
    radio_file() = default;
    ~radio_file();
    radio_file(const radio_file&) = delete;
    radio_file& operator=(const radio_file&) = delete;

    // Locks and reads the radio's state. 0, ENODEV when the radio has no state file, EIO when
    // the file is not one JSON object (`problem` then says why).
    int open(const std::string& radio, std::string* problem);
    // The state's top object; it belongs to this object.
    json_object* root() const { return state; }
    // Writes the state back (temporary file, then rename); false on I/O errors.
    bool save();

private:
    std::string path;
    int lock_fd = -1;
    json_object* state = nullptr;
};

// Takes the lock of a radio's state; -1 when it cannot (no state directory).
int lock_radio(const std::string& radio);
void unlock_radio(int lock_fd);
// Writes `state` to `path` atomically.
bool save_state(const std::string& path, json_object* state);

// The member `key` of `object`, or null.
json_object* member(json_object* object, const char* key);
// The member `key` of `object`, made an empty object first when missing or not an object.
json_object* object_member(json_object* object, const char* key);
// Adds one to counters.<name> of the state (made when missing).
void count_up(json_object* state, const char* name);

// The observer of vrtl_state.h, called by the emulation.
void notify_observer(unsigned long request, const struct iwreq* req);

}  // namespace vrtl

#endif
