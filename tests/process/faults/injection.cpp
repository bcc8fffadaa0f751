#include "process/faults/injection.h"

#include <fcntl.h>
#include <link.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <sstream>
#include <tuple>
#include <utility>

#include "fake_usb/bus.h"
#include "fake_usb/bus_state.h"
#include "fake_usb/script.h"
#include "support/dialogue.h"

int tvkintif_main(); // the program's main(), see CMakeLists.txt

namespace faults {

const std::vector<failing_call>& failing_calls()
{
    static const std::vector<failing_call>* const all = new std::vector<failing_call>{
        {SYS_accept, "accept", {EAGAIN, ECONNABORTED, EINTR, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM}},
        {SYS_bind, "bind", {EACCES, EADDRINUSE, EADDRNOTAVAIL, ENOMEM}},
        {SYS_brk, "brk", {ENOMEM}},
        {SYS_clock_nanosleep, "clock_nanosleep", {EINTR}},
        {SYS_close, "close", {EINTR, EIO}},
        {SYS_fcntl, "fcntl", {EINVAL, ENOMEM}},
        {SYS_fstat, "fstat", {EIO, ENOMEM}},
        {SYS_getsockname, "getsockname", {ENOBUFS}},
        {SYS_listen, "listen", {EADDRINUSE, ENOBUFS}},
        {SYS_lseek, "lseek", {EINVAL, ESPIPE}},
        {SYS_lstat, "lstat", {EACCES, EIO, ENOENT, ENOMEM}},
        {SYS_madvise, "madvise", {EAGAIN, ENOMEM}},
        {SYS_mmap, "mmap", {EAGAIN, ENFILE, ENOMEM, EPERM}},
        {SYS_mprotect, "mprotect", {EACCES, ENOMEM}},
        {SYS_munmap, "munmap", {ENOMEM}},
        {SYS_newfstatat, "newfstatat", {EACCES, EIO, ENOENT, ENOMEM}},
        {SYS_openat, "openat", {EACCES, EINTR, ELOOP, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC, ENXIO, EROFS}},
        {SYS_poll, "poll", {EINTR, ENOMEM}},
        {SYS_read, "read", {EAGAIN, ECONNRESET, EINTR, EIO, ENOMEM, ETIMEDOUT}},
        {SYS_readlink, "readlink", {EACCES, EIO, ENOENT, ENOMEM}},
        {SYS_rt_sigaction, "rt_sigaction", {EINVAL}},
        {SYS_rt_sigprocmask, "rt_sigprocmask", {EINVAL}},
        {SYS_setsockopt, "setsockopt", {EINVAL, ENOBUFS, ENOMEM}},
        {SYS_socket, "socket", {EACCES, EMFILE, ENFILE, ENOBUFS, ENOMEM}},
        {SYS_write, "write", {EAGAIN, ECONNRESET, EINTR, EIO, ENOSPC, EPIPE, ETIMEDOUT}},
        {SYS_writev, "writev", {EDQUOT, EINTR, EIO, ENOSPC}},
    };
    return *all;
}

namespace {

constexpr rlim_t kMostProcessorSeconds = 5;
constexpr unsigned int kMostSeconds = 60; ///< until a process counts as hanging
constexpr int kMostDescriptors = 64;

// Read by whatever the process does: plain values that need no construction.
injection plan;
report* told = nullptr;  ///< null unless the program runs in this process
int calls_of_number = 0; ///< system calls such as are to fail
bool is_watched = false;
bool is_told_to_end = false;
int listening_pipe = -1;
int descriptors_before = 0;
fake_usb::bus* the_bus = nullptr;

bool is_hit(int count)
{
    const bool hit = plan.is_for_ever ? count >= plan.nth : count == plan.nth;
    told->injected += hit ? 1 : 0;
    return hit;
}

} // namespace

static bool allocation_fails()
{
    if (told == nullptr || support::backstage::is_entered())
        return false;
    ++told->allocations;
    return plan.what == target::allocation && is_hit(told->allocations);
}

static void count_blocks(int change)
{
    if (told != nullptr && !support::backstage::is_entered())
        told->blocks_left += change;
}

bool device_state::operator<(const device_state& other) const
{
    return std::tie(active_configuration, kernel_drivers, halted) <
           std::tie(other.active_configuration, other.kernel_drivers, other.halted);
}

} // namespace faults

// Memory.
void* operator new(std::size_t size)
{
    // The sanitizer has a malloc() of its own, in which nothing can fail.
    const bool fails = faults::kIsSanitized && faults::allocation_fails();
    void* const memory = fails ? nullptr : std::malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    faults::count_blocks(1);
    return memory;
}

void operator delete(void* memory) noexcept
{
    if (memory != nullptr)
        faults::count_blocks(-1);
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    operator delete(memory);
}

#ifndef __SANITIZE_ADDRESS__

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

static bool refuses()
{
    if (!faults::allocation_fails())
        return false;
    errno = ENOMEM;
    return true;
}

void* malloc(std::size_t size)
{
    return refuses() ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    return refuses() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size)
{
    return refuses() ? nullptr : __libc_realloc(memory, size);
}

/// What payloads get their memory from.
void* mmap(void* address, std::size_t size, int protection, int flags, int descriptor, off_t offset) noexcept
{
    if (refuses())
        return MAP_FAILED;
    return reinterpret_cast<void*>( // how the system hands memory out
        syscall(SYS_mmap, address, size, protection, flags, descriptor, offset));
}
}

#endif

#ifdef __x86_64__

// The one place from which system calls reach the system: all others end in on_system_call().
extern "C" long faults_gate(long number, long, long, long, long, long, long);
extern "C" const char faults_gate_end[];
__asm__(R"(
    .text
    .globl faults_gate
    .globl faults_gate_end
faults_gate:
    mov %rdi, %rax
    mov %rsi, %rdi
    mov %rdx, %rsi
    mov %rcx, %rdx
    mov %r8, %r10
    mov %r9, %r8
    mov 8(%rsp), %r9
    syscall
faults_gate_end:
    ret
)");

namespace faults {

namespace {

using arguments = std::array<long, 6>;

long pass(long number, const arguments& all = {})
{
    return faults_gate(number, all[0], all[1], all[2], all[3], all[4], all[5]);
}

template <typename T>
long address(T* what)
{
    return reinterpret_cast<long>(what); // as a system call takes it
}

template <typename T>
T* pointer(long what)
{
    return reinterpret_cast<T*>(what); // as above
}

void end_program()
{
    if (std::exchange(is_told_to_end, true))
        return;
    pass(SYS_kill, {pass(SYS_getpid), SIGTERM});
}

long pause_at_once(const timespec& length)
{
    told->paused += static_cast<std::uint64_t>(length.tv_sec) * 1000U +
                    static_cast<std::uint64_t>(length.tv_nsec) / 1'000'000U;
    if (told->paused >= kLongEnough)
        end_program();
    return 0;
}

void tell_port(long descriptor)
{
    sockaddr_in bound = {};
    socklen_t size = sizeof bound;
    if (pass(SYS_getsockname, {descriptor, address(&bound), address(&size)}) != 0)
        return;
    told->port = ntohs(bound.sin_port);
    pass(SYS_write, {listening_pipe, address("!"), 1});
}

/// Where the C library's code is: the sanitizers make system calls of their own, which are not to fail.
struct code {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
} c_library;

int find_c_library(dl_phdr_info* library, std::size_t, void*)
{
    for (int i = 0; i < library->dlpi_phnum; ++i) {
        const auto& segment = library->dlpi_phdr[i];
        const std::uintptr_t begin = library->dlpi_addr + segment.p_vaddr;
        const std::string name = library->dlpi_name;
        if (name.find("/libc.so") != std::string::npos && (segment.p_flags & PF_X) != 0)
            c_library = {begin, begin + segment.p_memsz};
    }
    return 0;
}

bool is_of_program(const void* caller)
{
    const auto place = reinterpret_cast<std::uintptr_t>(caller); // to be compared as a number
    return is_watched && !support::backstage::is_entered() &&
           (!kIsSanitized || (c_library.begin <= place && place < c_library.end));
}

bool system_call_fails(const void* caller, long number, long descriptor)
{
    if (!is_of_program(caller))
        return false;
    if (told->system_calls == kMostSystemCalls)
        pass(SYS_kill, {pass(SYS_getpid), SIGXCPU});
    told->made[told->system_calls++] = {number, descriptor};
    return plan.what == target::system_call && number == plan.number && is_hit(++calls_of_number);
}

long answer(const void* caller, long number, const arguments& all)
{
    const bool fails = system_call_fails(caller, number, all[0]);
    if (fails && number == SYS_close) // a close that fails closes all the same
        pass(number, all);
    if (fails && number == SYS_brk) // one that fails returns where the heap ends, and no error
        return pass(number);
    if (fails)
        return -plan.result;
    if (number == SYS_clock_nanosleep)
        return pause_at_once(*pointer<const timespec>(all[2]));
    const long result = pass(number, all);
    if (number == SYS_listen && result == 0)
        tell_port(all[0]);
    return result;
}

void on_system_call(int, siginfo_t* info, void* context)
{
    auto* const interrupted = static_cast<ucontext_t*>(context);
    auto& registers = interrupted->uc_mcontext.gregs;
    const long number = registers[REG_RAX];
    registers[REG_RAX] = answer(info->si_call_addr, number,
                                {registers[REG_RDI], registers[REG_RSI], registers[REG_RDX],
                                 registers[REG_R10], registers[REG_R8], registers[REG_R9]});
    // The mask that the return from here restores is to be the new one.
    if (number == SYS_rt_sigprocmask)
        pass(number, {SIG_BLOCK, 0, address(&interrupted->uc_sigmask), _NSIG / 8});
}

/// Has every system call of this process but those of the gate raise SIGSYS; when they are not watched, only
/// those that on_system_call() does something about.
bool trap_system_calls()
{
    dl_iterate_phdr(find_c_library, nullptr);
    struct sigaction action = {};
    action.sa_sigaction = on_system_call;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(SIGSYS, &action, nullptr);
    const auto end = reinterpret_cast<std::uintptr_t>(faults_gate_end); // to be compared as a number
    constexpr std::uint32_t kNumber = offsetof(seccomp_data, nr);
    constexpr std::uint32_t kPlace = offsetof(seccomp_data, instruction_pointer);
    const auto low = static_cast<std::uint32_t>(end);
    const auto high = static_cast<std::uint32_t>(end >> 32U);
    const std::uint8_t others = is_watched ? 0 : 1; // how many statements to leap over: to the last one
    std::vector<sock_filter> program = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNumber),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigreturn, 8, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 7, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clock_nanosleep, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_listen, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JA, others == 0 ? 0U : 4U, 0, 0),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kPlace),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, low, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kPlace + 4),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, high, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
    };
    const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

} // namespace

std::string why_not()
{
    return "";
}

#else

namespace faults {

namespace {

bool trap_system_calls()
{
    return false;
}

} // namespace

std::string why_not()
{
    return "system calls are only caught on x86-64";
}

#endif

namespace {

int open_descriptors()
{
    int count = 0;
    for (int descriptor = 0; descriptor < kMostDescriptors; ++descriptor)
        count += fcntl(descriptor, F_GETFD) != -1 ? 1 : 0;
    return count;
}

device_state state_of(const libusb_device& device)
{
    device_state state{device.description.active_configuration};
    for (const int number : device.description.kernel_drivers)
        state.kernel_drivers |= 1U << static_cast<unsigned int>(number);
    for (const unsigned int endpoint : device.halted)
        state.halted |= 1U << ((endpoint & 0x0FU) + (endpoint >> 3U & 0x10U));
    return state;
}

void set_state(libusb_device& device, const device_state& state)
{
    device.description.active_configuration = state.active_configuration;
    device.description.kernel_drivers.clear();
    for (unsigned int bit = 0; bit < 32; ++bit) {
        if ((state.kernel_drivers >> bit & 1U) != 0)
            device.description.kernel_drivers.insert(static_cast<int>(bit));
        if ((state.halted >> bit & 1U) != 0)
            device.halted.insert(static_cast<std::uint8_t>((bit & 0x0FU) | (bit & 0x10U) << 3U));
    }
}

/// Runs after everything that the program destroys at its end.
void conclude(int status, void*)
{
    report& all = *std::exchange(told, nullptr);
    is_watched = false;
    for (const std::string& thing : the_bus->leftovers())
        support::record("LEFT BEHIND: " + thing);
    if (const int more = open_descriptors() - descriptors_before; more != 0)
        support::record("LEFT BEHIND: " + std::to_string(more) + " descriptors");
    const auto& devices = the_bus->state().devices;
    for (std::size_t i = 0; i < devices.size() && i < kMostDevices; ++i)
        all.devices[i] = state_of(*devices[i]);
    const std::string text = support::text(support::dialogue());
    std::copy_n(text.begin(), std::min(text.size(), all.text.size() - 1), all.text.begin());
    all.has_concluded = text.size() < all.text.size();
    _exit(status);
}

void limit_time()
{
    const rlimit most = {kMostProcessorSeconds, kMostProcessorSeconds};
    setrlimit(RLIMIT_CPU, &most);
    alarm(kMostSeconds);
}

} // namespace

void run_program(const std::string& bus_script, const bus_state* devices_before, const injection& failure,
                 bool watched, int listening, report& shared)
{
    limit_time();
    the_bus = new fake_usb::bus; // never destroyed: the program calls until its last moment
    std::istringstream script(bus_script);
    fake_usb::load_script(script, "bus", *the_bus);
    const auto& devices = the_bus->state().devices;
    for (std::size_t i = 0; devices_before != nullptr && i < devices.size(); ++i)
        set_state(*devices[i], (*devices_before)[i]);
    if (failure.what == target::libusb)
        the_bus->fail(fake_usb::kAnyFunction, failure.result)
            .from_call(failure.nth)
            .times(failure.is_for_ever ? INT_MAX : 1);
    on_exit(conclude, nullptr);
    plan = failure;
    is_watched = watched;
    listening_pipe = listening;
    descriptors_before = open_descriptors();
    if (!trap_system_calls())
        _exit(EXIT_FAILURE);
    told = &shared;
    std::exit(tvkintif_main());
}

} // namespace faults
