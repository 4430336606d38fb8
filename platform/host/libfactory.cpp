// Host factory-data library: reads the device's factory record from the text file
// device_path("/etc/factory"), one "key=value" per line:
//   board=VX-3100
//   hw=rev B
//   serial=A1B2C3D4
//   mac=00:11:22:33:44:55
// Lines starting with '#' and unknown keys are ignored; a value runs to the end of its line
// (a trailing '\r' is dropped). A value is copied with strncpy semantics: NUL-padded, and not
// terminated when it fills all 32 characters (longer values are cut at 32).
#include "libfactory.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "device_root.h"

namespace {

constexpr unsigned int factory_version = 1;

// strncpy semantics without strncpy: NUL-padded, unterminated when the value fills the field.
void copy_field(char (&field)[FACTORY_TEXT_SIZE], const std::string& value)
{
    std::memset(field, 0, FACTORY_TEXT_SIZE);
    size_t length = value.find('\0');  // a stray NUL ends the text, as it would for strncpy
    if (length == std::string::npos)
        length = value.size();
    std::memcpy(field, value.data(), length < FACTORY_TEXT_SIZE ? length : FACTORY_TEXT_SIZE);
}

}  // namespace

extern "C" int libfactory_load(factory_data_t* data)
{
    if (data == nullptr)
        return -1;
    std::memset(data, 0, sizeof *data);
    std::string path = device_path("/etc/factory");
    FILE* file = std::fopen(path.c_str(), "re");
    if (file == nullptr)
        return -1;

    data->version = factory_version;
    std::string line;
    int c;
    bool done = false;
    while (!done) {
        line.clear();
        while ((c = std::fgetc(file)) != EOF && c != '\n')
            line.push_back(static_cast<char>(c));
        if (c == EOF)
            done = true;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() || line[0] == '#')
            continue;
        size_t equals = line.find('=');
        if (equals == std::string::npos)
            continue;
        std::string key = line.substr(0, equals);
        std::string value = line.substr(equals + 1);
        if (key == "board") {
            copy_field(data->board, value);
        } else if (key == "hw") {
            copy_field(data->hw, value);
        } else if (key == "serial") {
            copy_field(data->serial, value);
        } else if (key == "mac") {
            copy_field(data->mac, value);
        }
    }
    std::fclose(file);
    return 0;
}
