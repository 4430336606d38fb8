// The driver's readers of outside text, on arbitrary bytes: the bytes as a configd reply (the
// value text it carries) and as a value text themselves, through every converter the driver
// applies to configuration values, and as the driver's mib_11n procfs text. Each result is
// checked against what the converter promises.
#include <regex.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cfg_tree.h"
#include "driver/config_values.h"

namespace {

void check(bool holds)
{
    if (!holds)
        std::abort();
}

bool has_token(const std::string& value)
{
    return value.find_first_not_of(' ') != std::string::npos;
}

void convert(const std::string& value)
{
    const std::string ssid = config_values::ssid(value);
    check(ssid.size() <= config_values::ssid_limit && value.compare(0, ssid.size(), ssid) == 0);

    if (config_values::is_wpa23(value))
        check(value.find("WPA_") == std::string::npos &&
              (value.find("WPA2") != std::string::npos || value.find("WPA3") != std::string::npos));
    if (config_values::is_true(value))
        check(value.size() == 4);
    config_values::is_enterprise(value);

    if (const auto bits = config_values::bandwidth_bits(value))
        check(*bits == config_values::bandwidth_20 || *bits == config_values::bandwidth_40 ||
              *bits == config_values::bandwidth_80);
    if (const auto bits = config_values::sideband_bits(value))
        check(*bits == 0 && (value == "lower" || value == "upper"));

    // Tokens end at a NUL as well, the way the driver's C string tokenizer reads them.
    const std::string as_c_text = value.c_str();
    const auto channels = config_values::channel_list(value);
    check(channels.has_value() == !value.empty());
    if (channels)
        check(channels->empty() == !has_token(as_c_text));
}

// A compiled ": .*" as the driver compiles it, kept for every run.
const regex_t& value_expression()
{
    static regex_t expression;
    static const bool compiled = regcomp(&expression, ": .*", REG_EXTENDED) == 0;
    check(compiled);
    return expression;
}

void read_procfs(const uint8_t* data, size_t size)
{
    if (size == 0)
        return;
    std::vector<char> text(data, data + size);
    FILE* file = fmemopen(text.data(), text.size(), "r");
    if (file == nullptr)
        return;
    const std::string value = config_values::procfs_value(file, "coexist", value_expression());
    std::fclose(file);
    // The value is the rest of one line after ": ", so it is shorter than a line and holds no
    // line end; it appears in the text as it is.
    check(value.size() + 2 < config_values::procfs_line_size);
    check(value.find_first_of("\r\n") == std::string::npos);
    check(std::string(text.begin(), text.end()).find(value) != std::string::npos);
    const bool on = config_values::coexist_on(value);
    check(!on || !value.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    convert(bytes);

    cfg_t* reply = cfg_parse_buffer(bytes.c_str());
    if (reply != nullptr) {
        convert(config_values::reply_value(reply));
        cfg_release(reply);
    }

    read_procfs(data, size);
    return 0;
}
