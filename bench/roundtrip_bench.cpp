#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "bench/ratio_reporter.h"
#include "fake_usb/bus.h"
#include "support/dialogue.h"
#include "support/open_log.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"
#include "tvkintif/src/dispatch.h"
#include "tvkintif/src/transceiver.h"
#include "unit/tvkintif/peer.h"

using unit::bytes;
using unit::peer;

// How long a front-end waits for the reply to a receive of 512 bytes, beside what two processes that do
// nothing but pass such messages would need here.

namespace {

constexpr std::size_t kHeaderSize = 20;
constexpr std::size_t kPayloadSize = 512;
constexpr unsigned char kOpen = 4;
constexpr unsigned char kClose = 5;
constexpr unsigned char kRecv = 7;

bytes request(unsigned char code, std::size_t value, const std::string& payload = "")
{
    bytes wire(kHeaderSize + payload.size());
    wire[3] = 1;
    wire[7] = code;
    wire[15] = static_cast<unsigned char>(payload.size());
    wire[18] = static_cast<unsigned char>(value >> 8U);
    wire[19] = static_cast<unsigned char>(value);
    std::copy(payload.begin(), payload.end(), wire.begin() + kHeaderSize);
    return wire;
}

/// The other side at its barest: takes a header, gives a header and a payload, as two writes.
class bare_server {
public:
    bare_server() : m_port(m_transceiver.port()), m_loop([this] { serve(); }) {}
    bare_server(const bare_server&) = delete;
    bare_server& operator=(const bare_server&) = delete;
    ~bare_server()
    {
        m_frontEnd.close();
        m_loop.join();
    }

    peer& front_end() { return m_frontEnd; }

private:
    void serve()
    {
        bytes header(kHeaderSize);
        const bytes payload(kPayloadSize);
        while (m_transceiver.recv(header.data(), kHeaderSize, false)) {
            m_transceiver.send(header.data(), kHeaderSize);
            m_transceiver.send(payload.data(), kPayloadSize);
        }
    }

    transceiver m_transceiver{0, 10};
    int m_port;
    std::thread m_loop;
    peer m_frontEnd{m_port};
};

/// The dispatcher's loop, its scanner open.
class server {
public:
    server()
    {
        do_cleanup = 0;
        m_loop = std::thread([this] { m_dispatch.run(); });
        m_frontEnd.send(request(kOpen, 0, "usb:1a2b:3c4d"));
        m_isOpen = m_frontEnd.receive(kHeaderSize) == request(0, 0);
    }
    server(const server&) = delete;
    server& operator=(const server&) = delete;
    ~server()
    {
        m_frontEnd.send(request(kClose, 0));
        m_loop.join();
    }

    bool is_open() const { return m_isOpen; }
    peer& front_end() { return m_frontEnd; }

private:
    dispatch m_dispatch;
    peer m_frontEnd{m_dispatch.port()};
    std::thread m_loop;
    bool m_isOpen = false;
};

void round_trips(benchmark::State& state, peer& front_end)
{
    const bytes asking = request(kRecv, kPayloadSize);
    for (auto each : state) {
        const auto start = std::chrono::steady_clock::now();
        front_end.send(asking);
        const bytes reply = front_end.receive(kHeaderSize + kPayloadSize);
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(taken.count());
        if (reply.size() != kHeaderSize + kPayloadSize)
            return state.SkipWithError("the reply has not the size that was asked for");
        support::take_dialogue(); // the fake bus notes each transfer
    }
}

void bare_loopback(benchmark::State& state)
{
    support::close_log();
    bare_server other;
    round_trips(state, other.front_end());
}

void receive(benchmark::State& state)
{
    server other;
    if (!other.is_open())
        return state.SkipWithError("the scanner could not be opened");
    round_trips(state, other.front_end());
}

void receive_of_512_bytes(benchmark::State& state)
{
    support::close_log();
    receive(state);
}

void receive_of_512_bytes_logged(benchmark::State& state)
{
    support::open_log(1);
    receive(state);
    support::close_log();
}

void repeated(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Repetitions(bench::kRepetitions)->ReportAggregatesOnly()->UseManualTime()->MinTime(0.05);
}

BENCHMARK(bare_loopback)->Apply(repeated);
BENCHMARK(receive_of_512_bytes)->Apply(repeated);
BENCHMARK(receive_of_512_bytes_logged)->Apply(repeated);

} // namespace

int main(int argc, char** argv)
{
    if (!support::enter_private_paths()) {
        std::fputs("bench_roundtrip: needs a plugin directory of its own; run it as root\n", stderr);
        return 1;
    }
    support::install_plugin("plugin_good", "libryo-mora-hk-t210.so");
    fake_usb::bus bus;
    bus.plug(fake_usb::scanner_device());
    return bench::run(argc, argv, bench::clock::wall);
}
