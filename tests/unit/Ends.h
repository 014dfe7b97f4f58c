// Two connected ends: a program under test writes into one, and the test reads from the other.
#ifndef REPORT_EVENT_TESTS_UNIT_ENDS_H
#define REPORT_EVENT_TESTS_UNIT_ENDS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace host_test {

struct Ends {
    int reading = -1;
    int writing = -1;

    Ends() = default;
    Ends(const Ends&) = delete;
    ~Ends()
    {
        close(reading);
        close(writing);
    }
};

struct Pipe : Ends {
    Pipe()
    {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        reading = ends[0];
        writing = ends[1];
    }
};

struct Socket : Ends {
    Socket()
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        reading = ends[0];
        writing = ends[1];
    }
};

struct Terminal : Ends {
    Terminal()
    {
        reading = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_EQ(grantpt(reading), 0);
        EXPECT_EQ(unlockpt(reading), 0);
        writing = open(ptsname(reading), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
};

}  // namespace host_test

#endif  // REPORT_EVENT_TESTS_UNIT_ENDS_H
