// Random sessions, well-formed and not, of a fixed seed; scripts/soak plays many more.

#include "process/tvkintif/model/player.h"

namespace session_model {

namespace {

constexpr std::uint64_t kSeed = 1;
// So many that each takes even a slow, busy machine less time than a test may take.
constexpr std::uint64_t kBlocks = 20;
#ifdef __SANITIZE_ADDRESS__
constexpr std::uint64_t kSessions = 500; // a process takes ten times as long to start
#else
constexpr std::uint64_t kSessions = 5000;
#endif
constexpr std::uint64_t kSessionsInBlock = kSessions / kBlocks;

} // namespace

class session_block : public player, public testing::WithParamInterface<std::uint64_t> {};
INSTANTIATE_TEST_SUITE_P(, session_block, testing::Range<std::uint64_t>(0, kBlocks));

TEST_P(session_block, goes_as_the_model_predicts)
{
    play(kSeed, GetParam() * kSessionsInBlock, kSessionsInBlock);
}

} // namespace session_model
