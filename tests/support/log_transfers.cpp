#include "support/log_transfers.h"

#include <cstdio>
#include <optional>

namespace support {

namespace {

const std::string read_call = "INFO ipc connection read get called = ";
const std::string read_result = "INFO ipc connection read get bail rv = ";
const std::string write_call = "INFO ipc connection wrute get called = ";
const std::string write_result = "INFO ipc connection wrte  bail rv = ";

struct progress {
    int moved;
    int total;
    int size;
};

/// The three lines of one call, as long as they fit each other and what was moved before.
std::optional<progress> one_call(const std::vector<std::string>& log, std::size_t at, const std::string& call,
                                 const std::string& result, int before)
{
    progress p = {};
    if (at + 2 >= log.size() || std::sscanf(log[at + 2].c_str(), "INFO transferred %d bytes, total %d/%d",
                                            &p.moved, &p.total, &p.size) != 3)
        return std::nullopt;
    const bool is_consistent = log[at] == call + std::to_string(p.size - before) &&
                               log[at + 1] == result + std::to_string(p.moved) && p.total == before + p.moved;
    return is_consistent ? std::optional(p) : std::nullopt;
}

/// If a transfer that completes begins at `at`: its size, with `at` moved behind it.
std::optional<int> whole_transfer(const std::vector<std::string>& log, std::size_t& at,
                                  const std::string& call, const std::string& result)
{
    std::size_t next = at;
    for (int before = 0;;) {
        const std::optional<progress> p = one_call(log, next, call, result, before);
        if (!p || p->moved == 0)
            return std::nullopt;
        next += 3;
        before = p->total;
        if (p->total == p->size) {
            at = next;
            return p->size;
        }
    }
}

void append_one_call(std::vector<std::string>& to, const std::string& call, const std::string& result,
                     int size)
{
    const std::string n = std::to_string(size);
    to.push_back(call + n);
    to.push_back(result + n);
    to.push_back("INFO transferred " + n + " bytes, total " + n + "/" + n);
}

} // namespace

std::vector<std::string> with_whole_transfers(const std::vector<std::string>& log)
{
    std::vector<std::string> result;
    for (std::size_t at = 0; at < log.size();) {
        if (const std::optional<int> size = whole_transfer(log, at, read_call, read_result))
            append_one_call(result, read_call, read_result, *size);
        else if (const std::optional<int> written = whole_transfer(log, at, write_call, write_result))
            append_one_call(result, write_call, write_result, *written);
        else
            result.push_back(log[at++]);
    }
    return result;
}

} // namespace support
