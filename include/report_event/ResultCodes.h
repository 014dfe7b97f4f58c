// The result codes of both halves. Pure: constants, nothing to link.
#ifndef REPORT_EVENT_RESULT_CODES_H
#define REPORT_EVENT_RESULT_CODES_H

namespace ReportEvent {

constexpr int RESULT_OK = 0;                     // success; of a publish also: nobody reads, the record was dropped
constexpr int RESULT_OPEN_FAILED = 0xF10005;     // registration: a resource file cannot be opened, nobody serves it
constexpr int RESULT_NULL_POINTER = 0xF10204;    // publish: the record's pointer is null
constexpr int RESULT_WRONG_SIZE = 0xF10205;      // publish: the record is larger than 3960 bytes
constexpr int RESULT_BAD_NAME = 0xF10206;        // (un)registration: a name was rejected, repeated or is not subscribed
constexpr int RESULT_SERVICE_FAILED = 0xF10207;  // service registration: the service could not be registered
constexpr int RESULT_POOL_FAILED = 0xF10208;     // service registration: the pool could not, the service stays
constexpr int RESULT_NO_BLOCK = 0xF10209;        // publish: the pool is empty, the reader is slower than the publisher
constexpr int RESULT_WRITE_FAILED = 0xF1020A;    // publish: the record could not be written into its block
constexpr int RESULT_ENQUEUE_FAILED = 0xF1020B;  // publish: the record could not be enqueued, the reader may be leaving

}  // namespace ReportEvent

#endif  // REPORT_EVENT_RESULT_CODES_H
