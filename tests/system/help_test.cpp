// The help of the programs, from which the man pages and the completion are made: what it names, the programs know.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/system/Programs.h"

namespace system_test {
namespace {

using Help = ProgramsTest;

struct CommandLine {
    std::string arguments;
    bool isWhole;
};

// Every option by itself, and every example.
std::vector<CommandLine> CommandLinesIn(const Words& help)
{
    std::vector<CommandLine> commandLines;
    for (const std::string& line : help) {
        if (line.rfind("  --", 0) == 0) {
            commandLines.push_back({line.substr(2, line.find(' ', 2) - 2), false});
        } else if (line.rfind("  $ report-event-", 0) == 0) {
            const std::string command = line.substr(4, line.find_first_of("|>") - 4);
            commandLines.push_back({command.substr(std::min(command.find(' '), command.size())), true});
        }
    }
    return commandLines;
}

TEST_F(Help, NamesNoOptionThatIsUnknownAndShowsExamplesThatAreUnderstood)
{
    for (const std::string program : {MONITOR, PUBLISHER}) {
        const auto help = Start(program, "--help");
        ExpectEnd(*help);
        int examples = 0;
        for (const CommandLine& commandLine : CommandLinesIn(help->Output())) {
            const auto process = Start(program, commandLine.arguments);
            EXPECT_TRUE(Await([&] { return !process->Transcript().empty() || process->HasEnded(); }));
            const int code = process->Stop(SIGTERM);
            EXPECT_EQ(process->Transcript().find("not expected"), std::string::npos) << process->Transcript();
            EXPECT_TRUE(!commandLine.isWhole || code != 2) << commandLine.arguments << process->Transcript();
            examples += commandLine.isWhole ? 1 : 0;
        }
        EXPECT_GE(examples, 6);
    }
}

}  // namespace
}  // namespace system_test
