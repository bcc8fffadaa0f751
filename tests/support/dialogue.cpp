#include "support/dialogue.h"

#include <mutex>
#include <utility>

namespace support {

namespace {

struct recorder {
    std::recursive_mutex mutex; // a merged source may record, and a sink may look
    std::vector<std::string> lines;
    std::function<void(const std::string&)> sink;
    std::function<std::vector<std::string>()> source;

    void append(const std::string& line)
    {
        lines.push_back(line);
        if (sink)
            sink(line);
    }

    void merge()
    {
        if (!source)
            return;
        for (const std::string& line : source())
            append(line);
    }
};

/// Never destroyed: fakes and plugins record until the last moment of the process.
recorder& the_recorder()
{
    static recorder* const instance = new recorder;
    return *instance;
}

} // namespace

void record(const std::string& line)
{
    const backstage own_part;
    recorder& all = the_recorder();
    const std::lock_guard lock(all.mutex);
    all.merge();
    all.append(line);
}

std::vector<std::string> dialogue()
{
    recorder& all = the_recorder();
    const std::lock_guard lock(all.mutex);
    all.merge();
    return all.lines;
}

std::vector<std::string> take_dialogue()
{
    recorder& all = the_recorder();
    const std::lock_guard lock(all.mutex);
    all.merge();
    return std::exchange(all.lines, {});
}

void set_dialogue_sink(std::function<void(const std::string&)> sink)
{
    recorder& all = the_recorder();
    const std::lock_guard lock(all.mutex);
    all.sink = std::move(sink);
}

void merge_into_dialogue(std::function<std::vector<std::string>()> source)
{
    recorder& all = the_recorder();
    const std::lock_guard lock(all.mutex);
    all.source = std::move(source);
}

std::string text(const std::vector<std::string>& lines)
{
    std::string all;
    for (const std::string& line : lines)
        all += line + "\n";
    return all;
}

} // namespace support

void support_record_line(const char* line)
{
    const support::backstage own_part;
    support::record(line);
}
