#include <gtest/gtest.h>

#include <iostream>

#include "support/log_reader.h"
#include "target/scenarios/scanner_process.h"

namespace {

/// In the scenario's own process: where it has mounts of its own, nobody else sees its log.
class log_printer : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo& scenario) override
    {
        if (scenario.result()->Failed())
            std::cout << "---- the program's log\n"
                      << support::raw_log() << "---- what the scanner saw\n"
                      << target::scanner_process::diary() << std::flush;
    }
};

} // namespace

int main(int count, char** arguments)
{
    testing::InitGoogleTest(&count, arguments);
    testing::UnitTest::GetInstance()->listeners().Append(new log_printer); // and leave it to the list
    return RUN_ALL_TESTS();
}
