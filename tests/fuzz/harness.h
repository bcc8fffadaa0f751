#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

/// What a fuzz target is given: any bytes at all. Each target is a program of one source, which defines this
/// function, and says in it what holds whatever the bytes are.
void fuzz_one(std::string_view input);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_one({reinterpret_cast<const char*>(data), size}); // libFuzzer has bytes, the targets mostly text
    return 0;
}

namespace fuzz {

/// Ends the program, by which libFuzzer keeps the input, unless this holds.
inline void expect(bool holds, std::string_view what)
{
    if (holds)
        return;
    std::fprintf(stderr, "fuzz: does not hold: %s\n", std::string(what).c_str());
    std::abort();
}

inline void expect_equal(const std::string& actual, const std::string& expected, const std::string& what)
{
    if (actual != expected)
        expect(false, what + "\n  is:        '" + actual + "'\n  should be: '" + expected + "'");
}

/// Takes an input as a row of decisions, from its front; one that is used up decides for 0.
class decisions {
public:
    explicit decisions(std::string_view input) : m_rest(input) {}

    std::uint8_t byte()
    {
        if (m_rest.empty())
            return 0;
        const auto first = static_cast<std::uint8_t>(m_rest.front());
        m_rest.remove_prefix(1);
        return first;
    }
    /// 0 to `count` - 1.
    int below(int count) { return byte() % count; }
    bool yes() { return (byte() & 1U) != 0; }
    std::uint32_t number()
    {
        std::uint32_t all = 0;
        for (int i = 0; i < 4; ++i)
            all = all << 8U | byte();
        return all;
    }
    /// At most so many bytes, and no more than are left.
    std::string text(std::size_t length)
    {
        const std::string taken(m_rest.substr(0, length));
        m_rest.remove_prefix(taken.size());
        return taken;
    }
    std::string short_text() { return text(byte()); }
    std::string_view rest() const { return m_rest; }

private:
    std::string_view m_rest;
};

/// A folder of this process's own, gone at its orderly end.
class scratch_folder {
public:
    scratch_folder() { expect(mkdtemp(m_path.data()) != nullptr, "a folder can be made in " + m_path); }
    scratch_folder(const scratch_folder&) = delete;
    scratch_folder& operator=(const scratch_folder&) = delete;
    ~scratch_folder() { std::filesystem::remove_all(m_path); }

    std::string operator/(const std::string& name) const { return m_path + "/" + name; }
    /// Writes a file and names it.
    std::string file(const std::string& name, std::string_view content) const
    {
        std::ofstream(*this / name, std::ios::binary) << content;
        return *this / name;
    }

private:
    std::string m_path = "/dev/shm/tvkintif-fuzz-XXXXXX"; ///< in memory
};

} // namespace fuzz
