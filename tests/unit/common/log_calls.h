#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// Linking this library puts it between the code under test and the calls of the C library that the log
/// makes: time, localtime_r, readlink, setlocale, vsnprintf and writev. Some are counted, some can be
/// scripted.
namespace unit::log_calls {

/// Forgets counts, records and scripts.
void reset();

/// How often the clock was asked, by time() or localtime_r().
int clock_count();
/// How often vsnprintf() was called.
int format_count();

/// Has `action` run at the start of each localtime_r().
void before_localtime(std::function<void()> action);
/// Has `action` run at the start of each writev(), with its descriptor.
void before_writev(std::function<void(int)> action);
/// Has `action` run at the start of each setlocale().
void before_setlocale(std::function<void()> action);

/// What readlink() finds from now on; no value: it fails.
void set_link(std::optional<std::string> target);

/// What setlocale() answers from now on, instead of doing anything.
void set_locale_answer(char* answer);

struct locale_call {
    int category;
    const char* locale;
};
const std::vector<locale_call>& locale_calls();

} // namespace unit::log_calls
