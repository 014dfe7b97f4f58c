// Output that takes nothing for a while, or ever: stopped terminals, full pipes, sockets, shared files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "tests/system/Ends.h"
#include "tests/system/Programs.h"

namespace system_test {
namespace {

using Output = ProgramsTest;

// As by Ctrl-S.
struct StoppedTerminal : Terminal {
    StoppedTerminal()
    {
        EXPECT_EQ(tcflow(writing, TCOOFF), 0);
    }
};

// All that comes, until there is `end`.
std::string ReadUntil(int fd, const std::string& end)
{
    std::string text;
    Await([&] {
        pollfd waited{fd, POLLIN, 0};
        char piece[4096];
        const ssize_t count = poll(&waited, 1, 0) > 0 ? read(fd, piece, sizeof(piece)) : 0;
        text.append(piece, static_cast<size_t>(std::max<ssize_t>(count, 0)));
        return text.find(end) != std::string::npos;
    });
    return text;
}

bool IsServed()
{
    const auto isSocket = [](const auto& entry) { return entry.is_socket(); };
    const std::filesystem::directory_iterator files(getenv("IAM_RUNTIME_DIR"));
    return std::any_of(begin(files), end(files), isSocket);
}

// Ends with the code of a program that a signal ended in order, whatever it wanted to write.
void ExpectSignalsEndBothPrograms(const Ends& ends)
{
    const auto publisher =
        Start(PUBLISHER, "--resource dp:/res/pm/fm --count 100000", "", {ends.writing, ends.writing});
    ASSERT_TRUE(Await(IsServed));
    ExpectStop(*publisher, SIGINT, 130);

    const auto source = Serve(PM, "--quiet --count 100000 --name " + std::string(128, 'n'));
    const auto monitor = Start(MONITOR, "", "", {ends.writing, -1});
    ASSERT_TRUE(source->WaitForError("0xF10209")) << source->Transcript();  // the monitor takes nothing any more
    ExpectStop(*monitor, SIGTERM, 0);
}

TEST_F(Output, AStopSignalEndsAProgramThatWaitsForItsOutput)
{
    ExpectSignalsEndBothPrograms(StoppedTerminal());
    for (const bool isNonBlocking : {false, true}) {
        const Pipe pipe;
        const int flags = O_WRONLY | (isNonBlocking ? O_NONBLOCK : 0);
        ASSERT_EQ(fcntl(pipe.writing, F_SETFL, flags), 0);
        ExpectSignalsEndBothPrograms(pipe);
        // Others have the description, too: it stays as it was.
        EXPECT_EQ(fcntl(pipe.writing, F_GETFL) & O_NONBLOCK, flags & O_NONBLOCK);
    }
    ExpectSignalsEndBothPrograms(Socket());
}

TEST_F(Output, EveryLineArrivesWholeHoweverSlowlyItIsRead)
{
    constexpr int COUNT = 3000;
    const std::string arguments = "--print --count " + std::to_string(COUNT) + " --name " + std::string(100, 'n');
    const Pipe pipe;
    const Socket socket;
    const StoppedTerminal terminal;
    for (const Ends* ends :
         {static_cast<const Ends*>(&pipe), static_cast<const Ends*>(&socket), static_cast<const Ends*>(&terminal)}) {
        const auto program = Start(PUBLISHER, arguments, "", {ends->writing, -1});
        tcflow(terminal.writing, TCOON);
        std::string text;
        const bool arrived = Await([&] {
            text += ReadUntil(ends->reading, "\n");
            return std::count(text.begin(), text.end(), '\n') == COUNT;
        });
        ASSERT_TRUE(arrived) << text.size();
        ExpectEnd(*program);
        std::istringstream lines(text);
        std::string first;
        std::getline(lines, first);
        for (std::string line; std::getline(lines, line);) {
            ASSERT_EQ(line, first);
        }
    }
}

TEST_F(Output, AFileThatOthersWriteToAsWellIsContinued)
{
    const auto script = Shell("cd $IAM_RUNTIME_DIR; { echo before; " TEST_EMULATOR " '" PUBLISHER
                              "' --print; echo after; } > file; cat file");
    ExpectEnd(*script);
    const Words lines = script->Output();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], "before");
    EXPECT_EQ(lines[2], "after");
}

}  // namespace
}  // namespace system_test
