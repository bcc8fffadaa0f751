// A plugin that does at one moment of its life what no plugin should do, and behaves at all others. Which
// moment and what is told by the environment when it is loaded:
//
//     MISDEEDS="reader crash; dtor hang"
//
// The moments are load, ctor, reader, writer, dtor and unload; the misdeeds are listed in all_misdeeds(), and
// numbers, which are the answer then. "misbehaving stays" in the dialogue says that nothing more will come.
#include <dlfcn.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <tarvik/interpreter.h>
#include <unistd.h>

#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>

// There when the process that loads the plugin is prepared for it.
extern "C" void support_record_line(const char* line) __attribute__((weak));

// The C library's longjmp() that notices when it would land in a function that has returned.
extern "C" [[noreturn]] void __longjmp_chk(jmp_buf place, int value);

namespace {

struct own_exception {
    virtual ~own_exception() = default;
};

constexpr std::size_t kMuchStack = std::size_t{64} << 20U;

tarvik_transfer read_device = nullptr;
tarvik_transfer write_device = nullptr;
jmp_buf gone;
std::map<std::string, std::string>* misdeeds = nullptr;

void tell(const std::string& what)
{
    if (support_record_line != nullptr)
        support_record_line(("misbehaving " + what).c_str());
}

void stay()
{
    tell("stays");
    for (;;)
        pause();
}

void print_without_end()
{
    tell("stays");
    for (;;)
        puts("one more line");
}

void spin()
{
    tell("stays");
    for (volatile int turn = 0;;)
        turn = 1 - turn;
}

void stop()
{
    tell("stays");
    raise(SIGSTOP);
}

void crash()
{
    static volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

__attribute__((noinline)) void remember_place()
{
    char deep[4096] = "is back";
    if (setjmp(gone) != 0)
        tell(deep);
}

void jump_back()
{
    remember_place();
    __longjmp_chk(gone, 1);
}

void arm_timer()
{
    const itimerval soon = {{0, 0}, {0, 1}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    for (;;)
        pause();
}

void set_all_handlers(void (*handler)(int))
{
    for (int number = 1; number < SIGRTMIN; ++number)
        if (number != SIGKILL && number != SIGSTOP)
            signal(number, handler);
}

void block_all()
{
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
}

void forbid_files()
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_FSIZE, &none);
}

void change_directory()
{
    if (chdir("/proc") != 0)
        abort();
}

/// A child that has everything open that this process had, and stays.
void fork_and_stay()
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(600); // ends it, should nobody else
        for (;;)
            pause();
    }
    tell("child " + std::to_string(child));
}

void fork_and_execute()
{
    const pid_t child = fork();
    if (child == 0) {
        unsetenv("LD_PRELOAD"); // the helper is no part of the test
        execl("/bin/sleep", "sleep", "600", nullptr);
        _exit(127);
    }
    tell("child " + std::to_string(child));
}

void start_thread(void* (*run)(void*), std::size_t stack = 0)
{
    pthread_t thread = {};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stack != 0)
        pthread_attr_setstacksize(&attributes, stack);
    if (pthread_create(&thread, &attributes, run, nullptr) != 0)
        abort();
    pthread_attr_destroy(&attributes);
    pthread_setname_np(thread, "misbehaving");
    if (stack != 0)
        pthread_join(thread, nullptr);
}

/// In a thread; this one waits until the process is no more.
void in_thread(void* (*run)(void*))
{
    start_thread(run);
    for (;;)
        pause();
}

void* pause_for_ever(void*)
{
    for (;;)
        pause();
}

void* transfer_once(void*)
{
    char byte = 0;
    read_device(&byte, 1);
    return pause_for_ever(nullptr);
}

void* throw_in_thread(void*)
{
    throw std::runtime_error("thrown in a thread");
}

void* exit_in_thread(void*)
{
    exit(3);
}

void* use_much_stack(void*)
{
    volatile char stack[kMuchStack - (1U << 16U)];
    for (std::size_t i = 0; i < sizeof stack; i += 4096)
        stack[i] = 1;
    return nullptr;
}

/// Takes back as often as needed what the loader counts.
void unload_itself()
{
    Dl_info self = {};
    dladdr(reinterpret_cast<void*>(&unload_itself), &self);
    void* const handle = dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    dlclose(handle);
    dlclose(handle);
}

/// Until the end of the process, whoever unloads it.
void stay_loaded()
{
    Dl_info self = {};
    dladdr(reinterpret_cast<void*>(&stay_loaded), &self);
    if (dlopen(self.dli_fname, RTLD_LAZY | RTLD_NODELETE) == nullptr)
        abort();
}

void transfer(void* buffer, int length)
{
    tell("read " + std::to_string(read_device(buffer, length)));
    tell("wrote " + std::to_string(write_device(buffer, length)));
}

void transfer_bytes(int length)
{
    char bytes[16] = {};
    transfer(bytes, length);
}

const std::map<std::string, void (*)()>& all_misdeeds()
{
    static const auto& all = *new std::map<std::string, void (*)()>{
        // outlives the static objects
        {"hang", stay},
        {"spin", spin},
        {"stop", stop},
        {"print", print_without_end},
        {"crash", crash},
        {"abort", abort},
        {"exit", [] { exit(3); }},
        {"quit", [] { _exit(3); }},
        {"throw", [] { throw std::runtime_error("thrown by a plugin"); }},
        {"throw_number", [] { throw 42; }},
        {"throw_its_own", [] { throw own_exception(); }},
        {"jump", jump_back},
        {"arm_timer", arm_timer},
        {"close_all", [] { close_range(0, ~0U, 0); }},
        {"change_directory", change_directory},
        {"change_umask", [] { umask(0777); }},
        {"change_locale", [] { setlocale(LC_ALL, "C.UTF-8"); }},
        {"reset_handlers", [] { set_all_handlers(SIG_DFL); }},
        {"ignore_signals", [] { set_all_handlers(SIG_IGN); }},
        {"block_signals", block_all},
        {"forbid_files", forbid_files},
        {"fork", fork_and_stay},
        {"execute", fork_and_execute},
        {"leave_thread", [] { start_thread(pause_for_ever); }},
        {"transfer_in_thread", [] { start_thread(transfer_once); }},
        {"throw_in_thread", [] { in_thread(throw_in_thread); }},
        {"exit_in_thread", [] { in_thread(exit_in_thread); }},
        {"use_much_stack", [] { use_much_stack(nullptr); }},
        {"use_much_stack_in_thread", [] { start_thread(use_much_stack, kMuchStack); }},
        {"unload_itself", unload_itself},
        {"stay_loaded", stay_loaded},
        {"transfer", [] { transfer_bytes(1); }},
        {"transfer_null", [] { transfer(nullptr, 16); }},
        {"transfer_nothing", [] { transfer_bytes(0); }},
        {"transfer_negative", [] { transfer_bytes(-1); }},
        {"transfer_least", [] { transfer_bytes(INT_MIN); }},
        {"transfer_most", [] { transfer_bytes(INT_MAX); }},
    };
    return all;
}

/// Carries out what is to be done at this moment. The answer that it is to give, or `usual`.
int misbehave(const char* moment, int usual)
{
    if (misdeeds == nullptr || misdeeds->count(moment) == 0)
        return usual;
    const std::string& misdeed = misdeeds->at(moment);
    const auto known = all_misdeeds().find(misdeed);
    if (known == all_misdeeds().end())
        return std::stoi(misdeed);
    tell(std::string(moment) + " " + misdeed);
    known->second();
    return usual;
}

std::map<std::string, std::string> read_misdeeds()
{
    const char* const text = std::getenv("MISDEEDS");
    std::map<std::string, std::string> result;
    std::istringstream statements(text == nullptr ? "" : text);
    for (std::string statement; std::getline(statements, statement, ';');) {
        std::istringstream words(statement);
        std::string moment;
        words >> moment;
        words >> result[moment];
    }
    return result;
}

[[gnu::constructor]] void loaded()
{
    misdeeds = new std::map<std::string, std::string>(read_misdeeds());
    misbehave("load", 0);
}

[[gnu::destructor]] void unloaded()
{
    misbehave("unload", 0);
}

} // namespace

int interpreter_ctor(tarvik_transfer reader, tarvik_transfer writer)
{
    read_device = reader;
    write_device = writer;
    return misbehave("ctor", 1);
}

void interpreter_dtor(void)
{
    misbehave("dtor", 0);
}

int interpreter_reader(void* buffer, int length)
{
    return misbehave("reader", read_device(buffer, length));
}

int interpreter_writer(void* buffer, int length)
{
    return misbehave("writer", write_device(buffer, length));
}
