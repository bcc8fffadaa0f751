#include "tvkctl/src/plugin/trial_child.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/mman.h>
#include <tarvik/interpreter.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tvkctl/src/plugin/crash_place.h"
#include "tvkintif/src/models.h"

namespace tarvik::tvkctl {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLookAgain{5};
/// What a reader must have overwritten.
constexpr unsigned char kUntouched = 0xA5;

/// The device of the trial. Plugins call it through C function pointers, from any thread.
class scripted_device {
public:
    scripted_device(const trial_plan& plan, trial_notes& notes) : m_plan(plan), m_notes(notes) {}

    int read(void* buffer, int length)
    {
        ++m_notes.reads;
        const int count = count_for(buffer, length);
        for (int index = 0; index < count; ++index)
            static_cast<unsigned char*>(buffer)[index] = next_byte();
        return count;
    }

    int write(const void* buffer, int length)
    {
        ++m_notes.writes;
        return count_for(buffer, length);
    }

private:
    int count_for(const void* buffer, int length)
    {
        if (m_notes.step > static_cast<int>(trial_step::dtor))
            ++m_notes.late_transfers;
        if (buffer == nullptr || length < 1) {
            ++m_notes.bad_transfers;
            return 0;
        }
        switch (m_plan.script) {
        case transfer_script::all:
            return length;
        case transfer_script::half:
            return length - length / 2;
        case transfer_script::nothing:
            break;
        }
        return 0;
    }

    unsigned char next_byte()
    {
        const std::size_t position = m_given++;
        if (position < m_plan.answers.size())
            return m_plan.answers[position];
        return static_cast<unsigned char>(position * 7 + (position >> 8U) * 13); // not constant, not random
    }

    const trial_plan& m_plan;
    trial_notes& m_notes;
    std::atomic<std::size_t> m_given{0};
};

scripted_device* g_device;

extern "C" {
static int read_device(void* buffer, int length)
{
    return g_device->read(buffer, length);
}
static int write_device(void* buffer, int length)
{
    return g_device->write(buffer, length);
}
}

/// Memory that ends where nobody may read or write, and that can be taken away for good.
class guarded_buffer {
public:
    explicit guarded_buffer(std::size_t size)
    {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t inside = (size + page - 1) / page * page;
        void* all = mmap(nullptr, inside + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (all == MAP_FAILED)
            throw std::bad_alloc();
        m_pages = static_cast<char*>(all) + page;
        m_pagesSize = inside;
        mprotect(m_pages, inside, PROT_READ | PROT_WRITE);
        m_bounds.end = m_pages + inside;
        m_bounds.begin = m_bounds.end - size;
    }
    guarded_buffer(const guarded_buffer&) = delete;
    guarded_buffer& operator=(const guarded_buffer&) = delete;
    ~guarded_buffer() =
        default; // the pages stay taken: a plugin that kept a pointer must crash, not hit others

    unsigned char* data() const
    {
        return reinterpret_cast<unsigned char*>(m_pages) + (m_bounds.begin - m_pages); // bytes, as they are
    }
    std::size_t size() const { return static_cast<std::size_t>(m_bounds.end - m_bounds.begin); }
    const buffer_bounds& bounds() const { return m_bounds; }

    void revoke() { mprotect(m_pages, m_pagesSize, PROT_NONE); }

private:
    buffer_bounds m_bounds{};
    char* m_pages;
    std::size_t m_pagesSize;
};

struct directory_closer {
    void operator()(DIR* directory) const { closedir(directory); }
};

/// The numbers that a folder of /proc lists, sorted, without that of the descriptor that reads it.
std::vector<int> numbers_in(const char* folder)
{
    const std::unique_ptr<DIR, directory_closer> directory(opendir(folder));
    std::vector<int> numbers;
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr)
        if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != dirfd(directory.get()))
            numbers.push_back(std::atoi(entry->d_name));
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

std::vector<int> added(const std::vector<int>& before, const std::vector<int>& now)
{
    std::vector<int> more;
    std::set_difference(now.begin(), now.end(), before.begin(), before.end(), std::back_inserter(more));
    return more;
}

std::string thread_name(int thread)
{
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/comm";
    char name[32] = {};
    if (std::FILE* file = std::fopen(path.c_str(), "re")) {
        const std::size_t size = std::fread(name, 1, sizeof name - 1, file);
        name[size > 0 ? size - 1 : 0] = '\0'; // without the newline
        std::fclose(file);
    }
    return name;
}

std::string descriptor_target(int descriptor)
{
    char target[256] = {};
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t size = readlink(path.c_str(), target, sizeof target - 1);
    return size > 0 ? target : "?";
}

class trial {
public:
    trial(const trial_plan& plan, trial_notes& notes)
        : m_plan(plan), m_notes(notes), m_device(plan, notes), m_sent(plan.sent.size()),
          m_received(static_cast<std::size_t>(plan.received)), m_lent{m_sent.bounds(), m_received.bounds()}
    {
        std::copy(plan.sent.begin(), plan.sent.end(), m_sent.data());
        std::fill_n(m_received.data(), m_received.size(), kUntouched);
    }

    void run()
    {
        g_device = &m_device;
        set_firmware_directories();
        note_crashes(m_notes, m_lent);
        m_threads = numbers_in("/proc/self/task");
        m_descriptors = numbers_in("/proc/self/fd");
        if (!load())
            return;
        if (m_plan.extent == trial_extent::load)
            unload();
        else if (has_all_functions() && start())
            talk();
    }

private:
    bool load();
    bool has_all_functions();
    bool start();
    void talk();
    void write();
    void read();
    void stop();
    void unload();

    void begin(trial_step step) { m_notes.step = static_cast<int>(step); }
    template <typename Function>
    int timed(trial_step step, Function call);
    template <typename Function>
    void look_up(const char* name, Function& function);
    void note_threads();
    void note_descriptors();

    const trial_plan& m_plan;
    trial_notes& m_notes;
    scripted_device m_device;
    guarded_buffer m_sent;
    guarded_buffer m_received;
    lent_buffers m_lent;
    std::vector<int> m_threads;     ///< before the plugin came
    std::vector<int> m_descriptors; ///< before the plugin came

    void* m_library = nullptr;
    std::string m_missing; ///< functions, one a line
    decltype(&interpreter_ctor) m_ctor = nullptr;
    decltype(&interpreter_dtor) m_dtor = nullptr;
    decltype(&interpreter_reader) m_reader = nullptr;
    decltype(&interpreter_writer) m_writer = nullptr;
};

/// Makes one call and notes what came of it. What the plugin printed leaves this process at once, since the
/// next step may be its last.
template <typename Function>
int trial::timed(trial_step step, Function call)
{
    begin(step);
    const auto before = steady_clock::now();
    const int result = call();
    const auto time = std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - before);
    std::fflush(nullptr);
    trial_notes::call& note = m_notes.calls[static_cast<std::size_t>(step)];
    note.result = result;
    note.microseconds = static_cast<std::int32_t>(time.count());
    note.has_returned = true;
    return result;
}

template <typename Function>
void trial::look_up(const char* name, Function& function)
{
    void* found = dlsym(m_library, name);
    function = reinterpret_cast<Function>(found); // how the loader hands functions out
    if (found != nullptr)
        return;
    const char* words = dlerror();
    if (m_missing.empty())
        write_down(m_notes.words, words != nullptr ? words : name);
    m_missing.append(name).append("\n");
    write_down(m_notes.missing, m_missing.c_str());
}

bool trial::load()
{
    timed(trial_step::load, [this] {
        m_library = dlopen(m_plan.path.c_str(), RTLD_LAZY); // as tvkintif does it
        return m_library != nullptr ? 1 : 0;
    });
    if (m_library == nullptr) {
        write_down(m_notes.words, dlerror());
        m_notes.is_not_loadable = true;
        return false;
    }
    look_up("interpreter_ctor", m_ctor);
    look_up("interpreter_dtor", m_dtor);
    look_up("interpreter_reader", m_reader);
    look_up("interpreter_writer", m_writer);
    set_plugin_address(reinterpret_cast<const void*>(m_ctor)); // as the loader knows it
    return true;
}

bool trial::has_all_functions()
{
    m_notes.is_not_loadable = !m_missing.empty();
    return m_missing.empty();
}

bool trial::start()
{
    const bool is_started =
        timed(trial_step::ctor, [this] { return m_ctor(read_device, write_device); }) != 0;
    if (!is_started)
        unload(); // without stopping it, as tvkintif does
    return is_started;
}

void trial::talk()
{
    write();
    read();
    stop();
    unload();
}

void trial::write()
{
    timed(trial_step::writer, [this] { return m_writer(m_sent.data(), static_cast<int>(m_sent.size())); });
    m_sent.revoke();
    m_lent[0].is_revoked = true;
}

void trial::read()
{
    const int result = timed(trial_step::reader, [this] {
        return m_reader(m_received.data(), static_cast<int>(m_received.size()));
    });
    const unsigned char* data = m_received.data();
    const auto is_untouched = [](unsigned char byte) { return byte == kUntouched; };
    m_notes.left_buffer_untouched = result != 0 && std::all_of(data, data + m_received.size(), is_untouched);
    m_received.revoke();
    m_lent[1].is_revoked = true;
}

void trial::stop()
{
    timed(trial_step::dtor, [this] {
        m_dtor();
        return 0;
    });
    note_threads();
    note_descriptors();
}

void trial::unload()
{
    timed(trial_step::unload, [this] { return dlclose(m_library); });
    begin(trial_step::done);
}

void trial::note_threads()
{
    const auto until = steady_clock::now() + kThreadsMayTake;
    std::vector<int> left;
    while (!(left = added(m_threads, numbers_in("/proc/self/task"))).empty() && steady_clock::now() < until)
        std::this_thread::sleep_for(kLookAgain);
    std::string lines;
    for (const int thread : left)
        lines += std::to_string(thread) + " " + thread_name(thread) + "\n";
    write_down(m_notes.threads, lines.c_str());
}

void trial::note_descriptors()
{
    std::string lines;
    for (const int descriptor : added(m_descriptors, numbers_in("/proc/self/fd")))
        lines += std::to_string(descriptor) + " " + descriptor_target(descriptor) + "\n";
    write_down(m_notes.descriptors, lines.c_str());
}

} // namespace

void run_trial_here(const trial_plan& plan, trial_notes& notes)
{
    try {
        // Never destroyed: a thread that the plugin left may still use it.
        (new trial(plan, notes))->run();
    } catch (...) {
        notes.has_thrown = true;
    }
    std::fflush(nullptr);
    _exit(EXIT_SUCCESS);
}

} // namespace tarvik::tvkctl
