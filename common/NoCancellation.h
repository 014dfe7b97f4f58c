// What both halves share: a scope in which the calling thread is not cancelled.
#ifndef REPORT_EVENT_COMMON_NO_CANCELLATION_H
#define REPORT_EVENT_COMMON_NO_CANCELLATION_H

#include <pthread.h>

namespace ReportEvent {

// Many calls of the platform are cancellation points. A thread cancelled in one of them would leave a registration half
// done, and end the process wherever the unwinding meets a destructor. Its cancellation takes effect after this scope.
class NoCancellation {
public:
    NoCancellation()
    {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_);
    }
    ~NoCancellation()
    {
        pthread_setcancelstate(before_, nullptr);
    }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace ReportEvent

#endif  // REPORT_EVENT_COMMON_NO_CANCELLATION_H
