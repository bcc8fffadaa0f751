#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "common/log/trusted_file.h"

namespace vl::common::log {

/// Severity of a record. The settings file may ask for any number, so a value outside the named ones is
/// legal: it prints as an empty name and compares by its number.
enum class ESeveryLevel : int { trace = 0, info = 1, warning = 2, error = 3, fatal = 4 };

/// The levels and what lines call them, the least severe first.
struct named_level {
    ESeveryLevel level;
    const char* name;
};
inline constexpr std::array<named_level, 5> kLevels = {{
    {ESeveryLevel::trace, "TRACE"},
    {ESeveryLevel::info, "INFO"},
    {ESeveryLevel::warning, "WARNING"},
    {ESeveryLevel::error, "ERROR"},
    {ESeveryLevel::fatal, "FATAL"},
}};
/// Empty for a value outside the named ones.
const char* level_name(ESeveryLevel level);

/// Where logs are: in a folder below this one, beside a file with settings.
inline constexpr const char* kLogRoot = "/tmp/velnor";
inline constexpr const char* kLogFolder = "tvkintif"; ///< this program's
inline constexpr const char* kSettingsFile = "setting.ini";
inline constexpr const char* kLevelKey = "loglevel"; ///< of the setting for the lowest level that is written

/// Serialises init_log() and every write to the log file.
extern std::mutex log_mtx;

/// Finds the log directory (kLogRoot, then "/" and `name` unless it is empty), reads `config_file` from it
/// and fixes the stem of the daily log file. Logging stays off, silently, when the directory does not exist,
/// or belongs to neither root nor this user: creating it turns logging on, and no stranger may. Call once,
/// before any record is to be written. The first argument is not used.
void init_log(void*, const std::string& name, const std::string& config_file);

/// The process's log settings: which levels are written, whether lines take the verbose form, and where
/// they go. Filled by init_log(), fixed afterwards.
///
/// Threads: is_enabled() fills its cache on the first successful call, which init_log() makes under
/// log_mtx; from then on it only reads. output_logfile() is called under log_mtx.
class logConfigure {
public:
    /// The one object that records consult.
    static logConfigure instance_;

    logConfigure() = default;
    logConfigure(const logConfigure&) = delete;
    logConfigure& operator=(const logConfigure&) = delete;
    // The cached level lasts as long as the object: whoever needs fresh settings assigns a new one.
    logConfigure(logConfigure&&) = default;
    logConfigure& operator=(logConfigure&&) = default;
    ~logConfigure() = default;

    /// Replaces the settings by those of the file at `path`; a missing file in an existing directory means
    /// level INFO, one that cannot be trusted (see trusted_file.h) turns logging off. Does not reset a level
    /// that was already cached.
    void set_config_file(const std::string& path);

    /// Whether records of `level` are written: the setting names the lowest severity that is.
    bool is_enabled(ESeveryLevel level)
    {
        if (m_level)
            return *m_level <= level;
        // Logging that is off altogether is the normal case and must not cost a look-up.
        return !settings.empty() && read_level(level);
    }

    /// True when TRACE is enabled: lines then carry source and line, and are copied to standard error.
    bool is_verbose() const { return verbose; }

    /// Today's log file: the stem, an underscore, the local date as YYYYMMDD, ".log"; at most 259 bytes.
    /// Empty before init_log() has found the stem.
    std::string output_logfile();

private:
    friend void init_log(void*, const std::string&, const std::string&);
    friend class Logger;

    /// The log file of that date, put together anew only when the date is another: without memory from the
    /// heap. Valid until the next call.
    const char* logfile_of(int date);

    void read_settings(const std::string& path);
    bool read_level(ESeveryLevel level);

    std::map<std::string, std::string, std::less<>> settings; ///< keys in lower case, values as written
    std::shared_ptr<ESeveryLevel> m_level;                    ///< empty until the setting was first parsed
    std::string m_stem;                                       ///< path of the log file up to the date
    bool verbose = false;
    std::array<char, 260> m_path{}; ///< of the log file of m_date
    int m_date = 0;                 ///< 20261115 is the 15th of November; 0: of none
};

/// One log line, on the stack of the statement that writes it:
///
///     Logger("usb", __LINE__, ESeveryLevel::info)("usb write : %s", name);
///
/// The constructor prepares the line's header, one formatting call appends header and message to today's
/// file, the destructor ends the line. The file is open for the time of the line and no longer: whoever moves
/// or removes it gets a new one with the next line. A record whose level is disabled does nothing at all.
/// Problems are never reported: a line that cannot be written, or for which there is no memory, is dropped.
///
/// Threads: any; each write holds log_mtx, so another thread's line can fall between a message and its
/// newline but not into either.
class Logger {
public:
    /// `unit` is the name of the calling unit; it is kept by address and must outlive the record.
    Logger(const char* unit, int source_line, ESeveryLevel severity)
        : file(unit), line(source_line), level(severity)
    {
        add_header(false);
    }
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    virtual ~Logger()
    {
        if (written)
            end_line();
    }

    /// Prepares a header, ending an already written line first. A short one stops after the thread id.
    void add_header(bool is_short)
    {
        if (written)
            end_line();
        if (is_enabled())
            append_header(is_short);
    }

    /// Writes a printf-style message, cut to its first 1023 characters.
    __attribute__((format(printf, 2, 3))) void operator()(const char* format, ...);

    /// Writes the value as an output stream shows it; a null string writes an empty message.
    template <typename T>
    Logger& operator<<(const T& value);
    Logger& operator<<(const char* text)
    {
        put(text);
        return *this;
    }

    /// As operator(), for a caller that holds the arguments already.
    __attribute__((format(printf, 2, 0))) void put(const char* format, std::va_list arguments);

    /// Appends the pending header and `text` to today's file. A null `text` writes the header alone.
    void put(const char* text);

    /// Writes `length` bytes as upper-case hexadecimal pairs, each followed by a blank, on one line.
    void Dumpbin(char* data, unsigned int length);

private:
    bool is_enabled() const { return logConfigure::instance_.is_enabled(level); }
    void append_header(bool is_short);
    /// Has today's file open; false when it cannot be.
    bool open_file();
    /// These add to the header, as far as there is room.
    void append(std::string_view text);
    void append(long number);
    void end_line();

    const char* file;
    int line;
    ESeveryLevel level;
    std::array<char, 255> m_header; ///< until the first write; not on the heap, which may have no room
    std::size_t m_headerSize = 0;
    bool written = false;             ///< the line has begun and needs its newline
    std::optional<TrustedFile> m_log; ///< open while `written`
    int m_logDate = 0;                ///< of the file that is open, as its name shows it
};

template <typename T>
Logger& Logger::operator<<(const T& value)
{
    if (!is_enabled())
        return *this;
    try {
        std::ostringstream text;
        text.exceptions(std::ios::badbit); // else, when memory runs out, a value would be written in part
        text << value;
        put(text.str().c_str());
    } catch (const std::bad_alloc&) {
        // Dropped.
    }
    return *this;
}

} // namespace vl::common::log
