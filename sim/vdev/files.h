// Writing the device tree. Every file is replaced through a temporary file and rename(), so
// that the daemon and vrtl, which read these files at any moment, never see half of one.
#ifndef ORVD_SIM_VDEV_FILES_H
#define ORVD_SIM_VDEV_FILES_H

#include <string>

// mkdir -p, mode 0755.
bool make_directories(const std::string& path, std::string* error);

// Creates the file's directory when needed and replaces the file with `content`.
bool replace_file(const std::string& path, const std::string& content, std::string* error);

// Removes a file; a file that is not there is no error.
bool remove_file(const std::string& path, std::string* error);

bool file_exists(const std::string& path);

#endif
