#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

/// One ordered record, per process, of everything that a test watches: what the fakes were called with,
/// what plugins did, which lines the log got. Tests compare the whole of it.
///
/// Threads: any.
namespace support {

/// Appends a line to the dialogue.
void record(const std::string& line);

/// Everything recorded since the start of the process or the last take_dialogue(), in order.
std::vector<std::string> dialogue();

/// As dialogue(), and forgets it.
std::vector<std::string> take_dialogue();

/// Has each recorded line handed to `sink` as well, as it happens; an empty function ends that.
void set_dialogue_sink(std::function<void(const std::string&)> sink);

/// Has `source` asked for new lines before each recorded line and at each look at the dialogue, so that
/// something that only grows beside the fakes (the log file) falls into its place among their lines. An
/// empty function ends that.
void merge_into_dialogue(std::function<std::vector<std::string>()> source);

/// While one lives, what runs are the test's own parts and not what they watch: failures that are brought
/// about spare them.
class backstage {
public:
    backstage() { ++depth; }
    backstage(const backstage&) = delete;
    backstage& operator=(const backstage&) = delete;
    ~backstage() { --depth; }

    static bool is_entered() { return depth > 0; }

private:
    inline static std::atomic<int> depth = 0;
};

/// The lines of one text, so that a failed comparison shows as a readable difference.
std::string text(const std::vector<std::string>& lines);

} // namespace support

extern "C" {

/// How C code (a plugin built for the tests) gets a line into the dialogue of the process that loaded it.
__attribute__((visibility("default"))) void support_record_line(const char* line);
}
