#include "emulator.h"

#include <cstdlib>

std::vector<std::string> emulator_words()
{
    std::vector<std::string> words;
    const char* text = std::getenv("ORVD_TEST_EMULATOR");
    std::string word;
    for (const char* c = text ? text : "";; ++c) {
        if (*c != ' ' && *c != '\0') {
            word += *c;
            continue;
        }
        if (!word.empty())
            words.push_back(word);
        word.clear();
        if (*c == '\0')
            return words;
    }
}

const char* fresh_process_death_test_style()
{
    return emulator_words().empty() ? "threadsafe" : "fast";
}
