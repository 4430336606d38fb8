// Records every line handed to the log library while it lives.
#ifndef ORVD_TESTS_LOG_CAPTURE_H
#define ORVD_TESTS_LOG_CAPTURE_H

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "vorna_log_host.h"

class log_capture {
public:
    struct line_t {
        vlr_log_level_t level;
        std::string text;
    };

    log_capture() { vorna_log_host_set_writer(&log_capture::write, this); }
    ~log_capture() { vorna_log_host_set_writer(nullptr, nullptr); }
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    std::vector<line_t> lines() const
    {
        std::lock_guard<std::mutex> guard(lock);
        return captured;
    }

    std::vector<std::string> texts() const
    {
        std::vector<std::string> result;
        for (const auto& line : lines())
            result.push_back(line.text);
        return result;
    }

    bool contains(const std::string& text) const
    {
        for (const auto& line : lines())
            if (line.text == text)
                return true;
        return false;
    }

    // True when a line at `level` has `part` somewhere in its text.
    bool mentions(vlr_log_level_t level, const std::string& part) const
    {
        for (const auto& line : lines())
            if (line.level == level && line.text.find(part) != std::string::npos)
                return true;
        return false;
    }

    void clear()
    {
        std::lock_guard<std::mutex> guard(lock);
        captured.clear();
    }

private:
    static void write(vlr_log_level_t level, const char* text, void* context)
    {
        auto* self = static_cast<log_capture*>(context);
        std::lock_guard<std::mutex> guard(self->lock);
        self->captured.push_back({level, text});
    }

    mutable std::mutex lock;
    std::vector<line_t> captured;
};

#endif
