#pragma once

#include "process/tvkintif/model/prediction.h"
#include "process/tvkintif/program_test.h"

namespace session_model {

/// Plays sessions against the program and fails for whatever is not as predicted.
class player : public process_test::program_test {
protected:
    /// Plays these sessions one after the other, up to the first that fails; tells how to play that again.
    void play(std::uint64_t seed, std::uint64_t first, std::uint64_t count);
    void play(const session& what);

private:
    void play_through(const session& what);
    void prepare(const session& what);
    void send_and_receive(const session& what, const prediction& expected);
    /// Until this much has been sent of the stream, and this much received; or the program has left.
    void move(const bytes& stream, std::size_t sent, std::size_t received);
    bool send_some(const bytes& stream, std::size_t end);
    bool receive_some();
    void leave(const session& what, const prediction& expected);
    void expect_traces(const session& what, const prediction& expected);

    std::size_t m_sent = 0;
    bytes m_received;
    bool m_isProgramGone = false;
};

} // namespace session_model
