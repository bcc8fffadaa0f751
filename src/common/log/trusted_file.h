#pragma once

#include <string>

namespace vl::common::log {

/// Why something in the place of the log is not used. The log lies below /tmp, where anybody may have put
/// what stands there.
enum class EDistrust {
    none,
    absent,        ///< it is not there or cannot be opened: `errno` says why
    foreign_owner, ///< it belongs neither to root nor to this (effective) user
    foreign_link,  ///< a link that leads to it belongs to neither of them
    wrong_kind,    ///< neither a regular file nor a device, or no directory
    several_names, ///< hard links to a file that is not this user's, or that others can make
};

/// A file of the log, opened if it can be trusted: it is a regular file or a device, it belongs to root or
/// this user, and so does each link that leads to it; one with several names is this user's and lies where
/// nobody else may write. Opening never blocks.
///
/// Owns the descriptor, which is closed by exec. Throws nothing and allocates nothing.
class TrustedFile {
public:
    /// `flags` as for open(); a file that O_CREAT makes gets mode 0666 less the umask.
    TrustedFile(const char* path, int flags) { open_at(path, flags, 0); }
    TrustedFile(const TrustedFile&) = delete;
    TrustedFile& operator=(const TrustedFile&) = delete;
    ~TrustedFile();

    explicit operator bool() const { return m_descriptor >= 0; }
    int descriptor() const { return m_descriptor; } ///< -1: not opened
    EDistrust reason() const { return m_reason; }   ///< why it was not opened

private:
    void open_at(const char* path, int flags, int links);

    int m_descriptor = -1;
    EDistrust m_reason = EDistrust::none;
};

/// Whether the log may be in this directory: it and a link that leads to it belong to root or to this user.
EDistrust judge_directory(const std::string& path);

} // namespace vl::common::log
