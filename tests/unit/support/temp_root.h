// A fresh directory that ORVD_ROOT points at while the object lives; afterwards ORVD_ROOT is
// put back as it was and the directory is removed with everything below it.
#ifndef ORVD_TESTS_UNIT_SUPPORT_TEMP_ROOT_H
#define ORVD_TESTS_UNIT_SUPPORT_TEMP_ROOT_H

#include <string>

// Puts ORVD_ROOT back, when it goes, as it was when it was made.
class root_variable_restorer {
public:
    root_variable_restorer();
    ~root_variable_restorer();
    root_variable_restorer(const root_variable_restorer&) = delete;
    root_variable_restorer& operator=(const root_variable_restorer&) = delete;

private:
    bool was_set = false;
    std::string value;
};

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
    // Points ORVD_ROOT at a subdirectory (created) of this root instead.
    void use_subdirectory(const std::string& relative);

private:
    root_variable_restorer restore_root;
    std::string directory;
};

#endif
