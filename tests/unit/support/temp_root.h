// A fresh directory that ORVD_ROOT points at while the object lives; afterwards ORVD_ROOT is
// put back as it was and the directory is removed with everything below it.
#ifndef ORVD_TESTS_UNIT_SUPPORT_TEMP_ROOT_H
#define ORVD_TESTS_UNIT_SUPPORT_TEMP_ROOT_H

#include <string>

class temp_root {
public:
    explicit temp_root(const char* prefix = "orvd-test");
    ~temp_root();
    temp_root(const temp_root&) = delete;
    temp_root& operator=(const temp_root&) = delete;

    const std::string& path() const { return directory; }
    // The path of a device file below the root, e.g. "/var/run/hostapd.pid".
    std::string device(const std::string& absolute) const { return directory + absolute; }

    // Creates the device file (and its directories) with the text; false when it cannot.
    bool create(const std::string& absolute, const std::string& text = "") const;
    bool exists(const std::string& absolute) const;
    void remove(const std::string& absolute) const;

private:
    bool had_root = false;
    std::string old_root;
    std::string directory;
};

#endif
