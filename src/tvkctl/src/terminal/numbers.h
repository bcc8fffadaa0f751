#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tarvik::tvkctl {

/// How a size may be written, for messages and help.
constexpr const char* kSizeForms = "512, 0x200, 64KiB, 1MiB or 2GiB";
/// How a time may be written.
constexpr const char* kTimeForms = "2, 0.5, 3s or 250ms";

/// Reads a number of bytes: decimal or 0x hexadecimal, with a unit or without. nullopt for anything else and
/// for what does not fit.
std::optional<std::uint64_t> parse_size(const std::string& text);

/// Reads a number from 0 to `largest`, decimal or 0x hexadecimal.
std::optional<std::uint64_t> parse_number(const std::string& text, std::uint64_t largest);

/// Reads a time of at most a day: seconds with or without a fraction ("2", "0.5", "3s"), or "250ms".
std::optional<std::chrono::milliseconds> parse_duration(const std::string& text);

/// "1 byte", "512 bytes", "1.5 MiB": for a person, to two digits or so.
std::string size_text(std::uint64_t size);
/// "0.004 s"
std::string seconds_text(std::chrono::nanoseconds time);

} // namespace tarvik::tvkctl
