#include "target/scanner/fault.h"

#include <algorithm>
#include <limits>
#include <map>

#include "target/scanner/words.h"

namespace virtual_scanner {

namespace {

enum class amount_rule { none, may_have, must_have };

struct fault_rule {
    fault_kind kind;
    amount_rule amount;
};

const std::map<std::string, fault_rule> kRules{
    {"stall-out", {fault_kind::stall_out, amount_rule::none}},
    {"stall-in", {fault_kind::stall_in, amount_rule::none}},
    {"stall-out-always", {fault_kind::stall_out_always, amount_rule::none}},
    {"stall-in-always", {fault_kind::stall_in_always, amount_rule::none}},
    {"short-answer", {fault_kind::short_answer, amount_rule::may_have}},
    {"zlp-before", {fault_kind::zlp_before, amount_rule::none}},
    {"zlp-after", {fault_kind::zlp_after, amount_rule::none}},
    {"silence", {fault_kind::silence, amount_rule::may_have}},
    {"deaf", {fault_kind::deaf, amount_rule::may_have}},
    {"delay", {fault_kind::delay, amount_rule::must_have}},
    {"unplug", {fault_kind::unplug, amount_rule::none}},
    {"unplug-in-read", {fault_kind::unplug_in_read, amount_rule::may_have}},
    {"unplug-in-write", {fault_kind::unplug_in_write, amount_rule::may_have}},
    {"vanish", {fault_kind::vanish, amount_rule::none}},
};

bool fits(const fault_rule& rule, const std::optional<std::uint32_t>& amount)
{
    return rule.amount == amount_rule::may_have ||
           amount.has_value() == (rule.amount == amount_rule::must_have);
}

auto find_rule(fault_kind kind)
{
    return std::find_if(kRules.begin(), kRules.end(),
                        [kind](const auto& each) { return each.second.kind == kind; });
}

} // namespace

std::optional<fault> fault_from(std::uint32_t kind, std::optional<std::uint32_t> amount)
{
    const auto rule = find_rule(static_cast<fault_kind>(kind));
    if (rule == kRules.end() || !fits(rule->second, amount))
        return std::nullopt;
    return fault{rule->second.kind, amount};
}

fault read_fault(const std::string& kind, const std::string& amount)
{
    const fault_rule rule = one_of(kRules, kind);
    fault read{rule.kind, std::nullopt};
    if (!amount.empty())
        read.amount = number(amount, 10, std::numeric_limits<std::uint32_t>::max());
    if (!fits(rule, read.amount))
        throw std::invalid_argument("the fault " + kind + (read.amount ? " takes no" : " needs an") +
                                    " amount");
    return read;
}

std::string name_of(fault_kind kind)
{
    const auto rule = find_rule(kind);
    return rule == kRules.end() ? "unknown" : rule->first;
}

} // namespace virtual_scanner
