// setting.ini: whatever stands in it, the level is what an independent reading of it says.

#include <algorithm>
#include <climits>
#include <cstring>

#include "common/log/logger.h"
#include "fuzz/harness.h"

using namespace vl::common::log;

namespace {

std::string trimmed(std::string text)
{
    constexpr const char* kBlanks = " \t\n\v\f\r";
    text.erase(0, std::min(text.find_first_not_of(kBlanks), text.size()));
    text.resize(text.find_last_not_of(kBlanks) + 1);
    return text;
}

/// The value of the first setting for the level; empty when there is none.
std::string level_setting(std::string_view all)
{
    while (!all.empty()) {
        const std::string line(all.substr(0, all.find('\n')));
        all.remove_prefix(std::min(line.size() + 1, all.size()));
        const std::size_t equals = line.find('=');
        std::string key = trimmed(line.substr(0, equals));
        for (char& c : key)
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
        const std::string value = equals == std::string::npos ? "" : trimmed(line.substr(equals + 1));
        if (key == kLevelKey && !value.empty())
            return value;
    }
    return {};
}

/// The number with which a text begins, as far as levels go; 0 when it begins with none.
int number_in(const char* text)
{
    const bool is_negative = *text == '-';
    if (is_negative || *text == '+')
        ++text;
    long long number = 0;
    for (; *text >= '0' && *text <= '9'; ++text)
        number = std::min<long long>(number * 10 + (*text - '0'), LLONG_MAX / 20);
    return static_cast<int>(std::clamp<long long>(is_negative ? -number : number, INT_MIN, INT_MAX));
}

} // namespace

void fuzz_one(std::string_view input)
{
    static const fuzz::scratch_folder folder;
    logConfigure settings;
    settings.set_config_file(folder.file(kSettingsFile, input));
    const std::string value = level_setting(input);
    for (const int level : {INT_MIN, -1, 0, 1, 2, 3, 4, 5, INT_MAX})
        fuzz::expect(settings.is_enabled(static_cast<ESeveryLevel>(level)) ==
                         (!value.empty() && number_in(value.c_str()) <= level),
                     "a level is written as the settings say");
    fuzz::expect(settings.is_verbose() == settings.is_enabled(ESeveryLevel::trace), "TRACE is verbose");
}
