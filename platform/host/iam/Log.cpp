#include "platform/host/iam/Log.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "platform/host/common/Mutex.h"

namespace host_platform::iam {
namespace {

// A bucket of lines that refills at one line a second.
class LineBudget {
public:
    // False when this line must be left out; otherwise `leftOut` is the number of lines left out before it.
    bool Take(uint64_t& leftOut) HOST_EXCLUDES(mutex_)
    {
        const MutexLock lock(mutex_);
        Refill();
        if (lines_ == 0) {
            ++leftOut_;
            return false;
        }
        --lines_;
        leftOut = leftOut_;
        leftOut_ = 0;
        return true;
    }

private:
    static constexpr int64_t BURST = 20;

    void Refill() HOST_REQUIRES(mutex_)
    {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const int64_t passed = now.tv_sec - lastRefill_;
        lines_ = lines_ + passed < BURST ? lines_ + passed : BURST;
        lastRefill_ = now.tv_sec;
    }

    Mutex mutex_;
    int64_t lines_ HOST_GUARDED_BY(mutex_) = BURST;
    int64_t lastRefill_ HOST_GUARDED_BY(mutex_) = 0;
    uint64_t leftOut_ HOST_GUARDED_BY(mutex_) = 0;
};

// Keeps a SIGPIPE that this thread's write may raise from reaching anybody.
class PipeSignalHeldBack {
public:
    PipeSignalHeldBack()
    {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    }
    ~PipeSignalHeldBack()
    {
        if (!wasPending_) {
            const timespec now{};
            while (sigtimedwait(&pipe_, nullptr, &now) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    PipeSignalHeldBack(const PipeSignalHeldBack&) = delete;
    PipeSignalHeldBack& operator=(const PipeSignalHeldBack&) = delete;

private:
    sigset_t pipe_{};
    sigset_t before_{};
    bool wasPending_ = false;
};

class Line {
public:
    void Append(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list arguments;
        va_start(arguments, format);
        AppendList(format, arguments);
        va_end(arguments);
    }

    void AppendList(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)))
    {
        const size_t room = sizeof text_ - size_;
        const int length = vsnprintf(text_ + size_, room, format, arguments);
        if (length > 0) {
            size_ += std::min(static_cast<size_t>(length), room - 1);
        }
    }

    // Ends the line and writes it.
    void Write()
    {
        // Names come from outside: one message stays one line.
        std::replace_if(
            text_, text_ + size_, [](char character) { return static_cast<unsigned char>(character) < ' '; }, '?');
        text_[size_++] = '\n';  // in the place of the terminator
        const PipeSignalHeldBack heldBack;
        if (write(STDERR_FILENO, text_, size_) < 0) {
            // There is nowhere to report it.
        }
    }

private:
    char text_[512] = {};
    size_t size_ = 0;
};

}  // namespace

void Log(const char* format, ...)
{
    // Trivially destructible, so that it works as long as the process does.
    static LineBudget budget;
    const int saved = errno;
    uint64_t leftOut = 0;
    if (budget.Take(leftOut)) {
        Line line;
        line.Append("iam: ");
        va_list arguments;
        va_start(arguments, format);
        line.AppendList(format, arguments);
        va_end(arguments);
        if (leftOut != 0) {
            line.Append(" (%llu lines left out before)", static_cast<unsigned long long>(leftOut));
        }
        line.Write();
    }
    errno = saved;
}

}  // namespace host_platform::iam
