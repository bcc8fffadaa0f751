#include "tvkctl/src/plugin/crash_place.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <ucontext.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace tarvik::tvkctl {

const int kWhereAreYou = SIGALRM;

namespace {

constexpr std::size_t kMostFrames = 64;
constexpr std::ptrdiff_t kGuardSize = 4096;  // the smallest page; a larger guard is told less exactly
constexpr std::ptrdiff_t kStackWords = 4096; // looked through for a return address into the plugin
constexpr std::ptrdiff_t kLongestCall = 8;   // bytes of an instruction that calls, at the most
/// From a return address back into the call. The address itself may be that of the next function: a call that
/// never returns can be the end of its caller.
constexpr std::ptrdiff_t kIntoCall = 2;
constexpr std::uintptr_t kNullPage = 4096; // members of an object that is not there are in it, too

/// Where the code of the plugin begins and ends.
struct code_range {
    const char* begin;
    const char* end;
};

trial_notes* g_notes;
const lent_buffers* g_lent;
code_range g_plugin;                  // empty until it is loaded
const void* g_stackEnd;               // of the thread that calls the plugin
alignas(16) char g_stack[256 * 1024]; // of its own: the plugin's may be what overflowed

struct instruction {
    void* address;
    void* link;  ///< the link register, which may hold the return address; null where there is none
    void* stack; ///< top of the stack
};

/// Registers hold addresses as numbers.
void* pointer_to(std::uintptr_t address)
{
    void* pointer = nullptr;
    std::memcpy(&pointer, &address, sizeof pointer);
    return pointer;
}

instruction instruction_of(const ucontext_t& context)
{
    const mcontext_t& machine = context.uc_mcontext;
#if defined(__x86_64__)
    return {pointer_to(static_cast<std::uintptr_t>(machine.gregs[REG_RIP])), nullptr,
            pointer_to(static_cast<std::uintptr_t>(machine.gregs[REG_RSP]))};
#elif defined(__arm__)
    return {pointer_to(machine.arm_pc), pointer_to(machine.arm_lr), pointer_to(machine.arm_sp)};
#elif defined(__aarch64__)
    return {pointer_to(machine.pc), pointer_to(machine.regs[30]), pointer_to(machine.sp)};
#else
    (void)machine;
    return {nullptr, nullptr, nullptr};
#endif
}

const char* file_name(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

/// "interpreter_ctor+0x1c (address 0x113c of plugin.so)".
void describe(char* text, std::size_t size, const void* address)
{
    Dl_info about{};
    if (dladdr(address, &about) == 0) {
        const auto number = reinterpret_cast<std::uintptr_t>(address); // %p has other words for 0
        std::snprintf(text, size, "0x%lx, where there is no code", static_cast<unsigned long>(number));
        return;
    }
    const auto* at = static_cast<const char*>(address);
    const auto in_file = static_cast<std::size_t>(at - static_cast<const char*>(about.dli_fbase));
    const char* file = file_name(about.dli_fname);
    if (about.dli_sname == nullptr) {
        std::snprintf(text, size, "address 0x%zx of %s", in_file, file);
        return;
    }
    const auto in_function = static_cast<std::size_t>(at - static_cast<const char*>(about.dli_saddr));
    std::snprintf(text, size, "%s+0x%zx (address 0x%zx of %s)", about.dli_sname, in_function, in_file, file);
}

bool is_in_plugin(const void* address)
{
    return address >= g_plugin.begin && address < g_plugin.end;
}

#if defined(__arm__)
unsigned int half_word(const char* code)
{
    std::uint16_t value = 0;
    std::memcpy(&value, code, sizeof value);
    return value;
}

/// Whether a call stands before this address, as it does before a return address. The linker puts tables
/// into the same segment as the code, and the loader leaves pointers to them on the stack.
bool is_behind_call(const char* address)
{
    if (address - g_plugin.begin < kLongestCall)
        return false;
    const bool is_thumb = (reinterpret_cast<std::uintptr_t>(address) & 1U) != 0;
    const char* end = is_thumb ? address - 1 : address;
    const unsigned int first = half_word(end - 4);
    const unsigned int second = half_word(end - 2);
    if (is_thumb) // BL and BLX with a distance, BLX with a register
        return ((first & 0xF800U) == 0xF000U && (second & 0xC000U) == 0xC000U) ||
               (second & 0xFF87U) == 0x4780U;
    return (second & 0x0F00U) == 0x0B00U || (second & 0xFE00U) == 0xFA00U ||
           ((second & 0x0FFFU) == 0x012FU && (first & 0xFFF0U) == 0xFF30U);
}
#else
bool is_behind_call(const char*)
{
    return true;
}
#endif

/// What looks like the innermost return address into the plugin on the stack of the thread that calls it.
/// Reads whatever is there, which a sanitizer would take for a mistake.
__attribute__((no_sanitize("address"))) const void* caller_on_stack(const void* stack)
{
    const auto* end = static_cast<const void* const*>(g_stackEnd);
    const auto* word = static_cast<const void* const*>(stack);
    for (std::ptrdiff_t looked = 0; looked < kStackWords && word < end; ++looked, ++word)
        if (is_in_plugin(*word) && is_behind_call(static_cast<const char*>(*word)))
            return *word;
    return nullptr;
}

/// The innermost address of the plugin's own code, as far as unwinding goes; null when there is none.
const void* place_in_plugin(const instruction& at)
{
    std::array<void*, kMostFrames + 2> frames{at.address};
    backtrace(frames.data() + 1, kMostFrames); // what it does not fill stays null, which is nobody's code
    frames.back() = at.link;
    const auto* found = std::find_if(frames.begin(), frames.end(), is_in_plugin);
    return found == frames.end() ? nullptr : *found;
}

void write_caller(const char* innermost, const char* relation, const void* return_address)
{
    char place[256];
    describe(place, sizeof place, static_cast<const char*>(return_address) - kIntoCall);
    char whole[600];
    std::snprintf(whole, sizeof whole, "%s, %s %s", innermost, relation, place);
    write_down(g_notes->place, whole);
}

/// Unwinding ends early in code that has no tables for it, and on some machines in a handler; what the stack
/// holds is then better than nothing.
void write_place(const instruction& at)
{
    char innermost[256];
    describe(innermost, sizeof innermost, at.address);
    if (!is_in_plugin(at.address)) {
        if (const void* caller = place_in_plugin(at))
            return write_caller(innermost, "called from", caller);
        if (const void* guess = caller_on_stack(at.stack))
            return write_caller(innermost, "probably called from", guess);
    }
    write_down(g_notes->place, innermost);
}

/// Empty when the address is in no relation to the buffer.
const char* relation(const char* address, const buffer_bounds& buffer)
{
    if (address >= buffer.end && address < buffer.end + kGuardSize)
        return "beyond the end of the buffer that it was lent";
    if (address < buffer.begin && address >= buffer.begin - kGuardSize)
        return "before the beginning of the buffer that it was lent";
    if (buffer.is_revoked && address >= buffer.begin && address < buffer.end)
        return "in the buffer of a call that has returned";
    return "";
}

const char* explanation(int signal_number, const void* fault)
{
    if (signal_number != SIGSEGV && signal_number != SIGBUS)
        return "";
    const auto* address = static_cast<const char*>(fault);
    if (reinterpret_cast<std::uintptr_t>(address) < kNullPage)
        return "through a null pointer";
    for (const buffer_bounds& buffer : *g_lent)
        if (const char* words = relation(address, buffer); *words != '\0')
            return words;
    return "";
}

/// Called for each loaded object: finds the code that has g_plugin.begin in it, and ends the search.
int find_code(dl_phdr_info* object, std::size_t, void*)
{
    for (int index = 0; index < object->dlpi_phnum; ++index) {
        const auto& segment = object->dlpi_phdr[index];
        const auto* begin = static_cast<const char*>(pointer_to(object->dlpi_addr + segment.p_vaddr));
        const code_range code{begin, begin + segment.p_memsz};
        if (segment.p_type == PT_LOAD && g_plugin.begin >= code.begin && g_plugin.begin < code.end) {
            g_plugin = code;
            return 1;
        }
    }
    return 0;
}

/// Where the stack of the calling thread ends; null when that cannot be found out.
const void* end_of_stack()
{
    pthread_attr_t about{};
    if (pthread_getattr_np(pthread_self(), &about) != 0)
        return nullptr;
    void* begin = nullptr;
    std::size_t size = 0;
    pthread_attr_getstack(&about, &begin, &size);
    pthread_attr_destroy(&about);
    return static_cast<const char*>(begin) + size;
}

/// Calls more than a handler may call at any moment. The process is lost already, and should the handler
/// hang, the one that watches ends it.
void on_crash(int signal_number, siginfo_t* about, void* context)
{
    write_down(g_notes->words, explanation(signal_number, about->si_addr));
    write_place(instruction_of(*static_cast<const ucontext_t*>(context)));
    signal(signal_number, SIG_DFL);
    raise(signal_number); // strikes when this returns, so that the status tells what happened
}

} // namespace

void write_down(trial_notes::text& into, const char* words)
{
    std::snprintf(into.data(), into.size(), "%s", words);
}

void note_crashes(trial_notes& notes, const lent_buffers& lent)
{
    g_notes = &notes;
    g_lent = &lent;
    void* unused[1];
    backtrace(unused, 1); // loads the unwinder now, not in the handler
    g_stackEnd = end_of_stack();

    stack_t stack{};
    stack.ss_sp = g_stack;
    stack.ss_size = sizeof g_stack;
    sigaltstack(&stack, nullptr);
    struct sigaction action {};
    action.sa_sigaction = on_crash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (const int signal_number : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS, kWhereAreYou})
        sigaction(signal_number, &action, nullptr);
}

void set_plugin_address(const void* address)
{
    g_plugin = {static_cast<const char*>(address), nullptr};
    dl_iterate_phdr(find_code, nullptr);
}

} // namespace tarvik::tvkctl
