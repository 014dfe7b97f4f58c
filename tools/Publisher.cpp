#include "tools/Publisher.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "platform/host/iam/HostService.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ResultCodes.h"

namespace tools {

namespace {

using std::chrono::milliseconds;

bool HasReader(const std::string& resource)
{
    return IAMHostReaderCount(resource.c_str()) > 0;
}

}  // namespace

Publisher::Publisher(const PublisherOptions& options, const StopSignals& signals, Output& output)
    : options_(options), signals_(signals), output_(output)
{
    const int result = ReportEventClient::GetInstance().RegisterResService(options_.resource);
    if (result != ReportEvent::RESULT_OK) {
        throw std::runtime_error(options_.resource + ": cannot serve it: " + DescribeResult(result) +
                                 "; is the name well-formed and served by no other process?");
    }
    Say("serving " + options_.resource);
}

bool Publisher::WaitForReader() const
{
    constexpr milliseconds LOOK_INTERVAL{10};
    const Clock::time_point start = Clock::now();
    while (options_.wait && !HasReader(options_.resource)) {
        if (options_.timeout != 0 && Clock::now() - start >= std::chrono::seconds(options_.timeout)) {
            throw std::runtime_error("nobody has opened " + options_.resource + " within " +
                                     std::to_string(options_.timeout) + " s");
        }
        if (signals_.WaitFor(LOOK_INTERVAL)) {
            return false;
        }
    }
    return true;
}

bool Publisher::WaitForTurn(std::optional<SystemTime> arrival)
{
    const bool isFirst = std::exchange(isFirst_, false);
    if (isFirst) {
        start_ = Clock::now();
    }
    const Seconds pause = options_.timing == 0 ? milliseconds(isFirst ? 0 : options_.interval) : PauseByTiming(arrival);
    return !signals_.WaitFor(std::chrono::ceil<std::chrono::nanoseconds>(pause));
}

void Publisher::Say(const std::string& line)
{
    output_.Write(Printable(line) + '\n', signals_.Descriptor());
}

// Counted from the first record, so that what single records cost does not add up. A clock that was set back while the
// recording was made costs no time, nor does a record that tells no arrival.
Publisher::Seconds Publisher::PauseByTiming(std::optional<SystemTime> arrival)
{
    constexpr Seconds LONGEST{1e9};
    if (arrival) {
        const Seconds gap = *arrival - lastArrival_.value_or(*arrival);
        due_ += std::max(gap, Seconds(0)) / options_.timing;
        lastArrival_ = arrival;
    }
    return std::clamp<Seconds>(due_ - (Clock::now() - start_), Seconds(0), LONGEST);
}

bool Publisher::Publish(const std::string& description, std::optional<SystemTime> arrival,
                        const std::function<Record()>& make)
{
    if (!WaitForTurn(arrival)) {
        return false;
    }
    const Record record = make();
    const bool hadReader = HasReader(options_.resource);
    const std::optional<int> result = PublishWhenThereIsRoom(record);
    if (!result) {
        return false;
    }
    if (*result != ReportEvent::RESULT_OK) {
        ++failed_;
        Complain(description + ": not published: " + DescribeResult(*result));
        return true;
    }
    ++published_;
    unread_ += hadReader ? 0 : 1;
    if (!options_.quiet) {
        Say(description + ", " + std::to_string(record.size()) + " bytes: result 0");
    }
    return true;
}

bool Publisher::Summarise(uint64_t passedOver)
{
    const std::string remark =
        passedOver == 0 ? "" : "; " + std::to_string(passedOver) + " events of other resources passed over";
    Say(options_.resource + ": " + std::to_string(published_) + " records with result 0, " + std::to_string(failed_) +
        " failed; " + std::to_string(retried_) + " tries met a full pool" + remark);
    if (unread_ > 0 && !options_.wait) {
        Notify(std::to_string(unread_) + " of them found no reader of " + options_.resource +
               " and were dropped (--wait waits for one)");
    }
    return failed_ == 0;
}

// Nothing when a stop signal came before there was room.
std::optional<int> Publisher::PublishWhenThereIsRoom(const Record& record)
{
    // Every failed attempt leaves a line in the system log.
    constexpr milliseconds LONGEST_PAUSE{100};
    constexpr int TRIES_BEFORE_NOTICE = 10;
    milliseconds pause{1};
    for (int tries = 1;; ++tries) {
        const int result = ReportEventClient::GetInstance().ReportEvent(reinterpret_cast<const char*>(record.data()),
                                                                        static_cast<unsigned int>(record.size()));
        if (result != ReportEvent::RESULT_NO_BLOCK) {
            return result;
        }
        ++retried_;
        if (tries == TRIES_BEFORE_NOTICE) {
            Notify(DescribeResult(result) + "; waiting for the reader");
        }
        if (signals_.WaitFor(pause)) {
            return std::nullopt;
        }
        pause = std::min(2 * pause, LONGEST_PAUSE);
    }
}

}  // namespace tools
