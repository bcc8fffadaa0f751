#include "support/log_transfers.h"

#include <cstdio>
#include <optional>

namespace support {

namespace {

const std::string kReadCall = "INFO ipc connection read get called = ";
const std::string kReadResult = "INFO ipc connection read get bail rv = ";
const std::string kWriteCall = "INFO ipc connection wrute get called = ";
const std::string kWriteResult = "INFO ipc connection wrte  bail rv = ";

struct progress {
    long long moved;
    long long total;
    long long size;
};

/// Counts are logged as far as they fit an int.
std::string as_logged(long long count)
{
    return std::to_string(static_cast<int>(count));
}

/// The three lines of one call, as long as they fit each other and what was moved before.
std::optional<progress> one_call(const std::vector<std::string>& log, std::size_t at, const std::string& call,
                                 const std::string& result, const progress& before)
{
    progress p = {};
    if (at + 2 >= log.size() ||
        std::sscanf(log[at + 2].c_str(), "INFO transferred %lld bytes, total %lld/%lld", &p.moved, &p.total,
                    &p.size) != 3)
        return std::nullopt;
    const bool is_consistent =
        log[at] == call + as_logged(p.size - before.total) && log[at + 1] == result + as_logged(p.moved) &&
        p.total == before.total + p.moved && (before.size == 0 || p.size == before.size);
    return is_consistent ? std::optional(p) : std::nullopt;
}

/// The calls of a transfer that begins at `at`, with `at` moved behind those that moved something.
std::optional<progress> transfer(const std::vector<std::string>& log, std::size_t& at,
                                 const std::string& call, const std::string& result)
{
    progress sum = {};
    while (sum.size == 0 || sum.total < sum.size) {
        const std::optional<progress> p = one_call(log, at, call, result, sum);
        if (!p || p->moved == 0)
            break;
        at += 3;
        sum = *p;
    }
    return sum.total > 0 ? std::optional(sum) : std::nullopt;
}

void append_one_call(std::vector<std::string>& to, const std::string& call, const std::string& result,
                     const progress& sum)
{
    const std::string moved = std::to_string(sum.total);
    to.push_back(call + as_logged(sum.size));
    to.push_back(result + moved);
    to.push_back("INFO transferred " + moved + " bytes, total " + moved + "/" + std::to_string(sum.size));
}

} // namespace

std::vector<std::string> with_whole_transfers(const std::vector<std::string>& log)
{
    std::vector<std::string> result;
    for (std::size_t at = 0; at < log.size();) {
        if (const std::optional<progress> got = transfer(log, at, kReadCall, kReadResult))
            append_one_call(result, kReadCall, kReadResult, *got);
        else if (const std::optional<progress> put = transfer(log, at, kWriteCall, kWriteResult))
            append_one_call(result, kWriteCall, kWriteResult, *put);
        else
            result.push_back(log[at++]);
    }
    return result;
}

} // namespace support
