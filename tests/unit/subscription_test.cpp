// Starting and stopping a family: names, files, threads, and what stays behind.
#include <system_error>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

const std::string NEXT = " | ";

class Subscription : public LibraryTest {};

TEST_F(Subscription, AStartOpensWhatTheNamesAllowInOrderAndReportsTheRest)
{
    const std::string dot = "log 3 Illegal fileName, find '.', cannot open file=";
    const std::string noColon = "log 3 Illegal fileName, cannot find ':', cannot open file=";
    const std::string prefix = "log 3 CheckFileNameIsValid failed prefix=/res/, fileName=";
    const std::string twice = "log 3 resFile=" + PM + " is repeated, please check your input groupOwnerList | ";
    const std::string absent = "open(x:/res/no, 2) = -1 | log 3 Open file failed. resFile=x:/res/no fd=-1";
    const std::string cutOff = PM + '\0' + "x";
    const auto started = [](const std::string& name, int fd) { return Opened(name, fd) + " | thread"; };
    const auto check = [&](EventType family, const Names& list, int result, const std::string& journal) {
        SCOPED_TRACE(testing::PrintToString(list));
        EXPECT_EQ(result, server_->StartSubscribeEvent(list, family));
        EXPECT_EQ(RESULT_OK, server_->StartSubscribeEvent({"bad", TWO}, family)) << "running: nothing is looked at";
        EXPECT_EQ(journal, Journal("open log thread close join"));
        server_->StopSubscribeEvent(list, family);
        EXPECT_TRUE(server_->faultEvtSrcMap_.empty());
        EXPECT_TRUE(server_->secEvtSrcMap_.empty());
        Journal();
    };
    Next("open x:/res/no", {nullptr, -1}, 3);
    check(FAULT_EVENT, {SEA, PM}, RESULT_OK, started(PM, 1000) + NEXT + started(SEA, 1001));
    check(FAULT_EVENT, {PM, PM, PM}, RESULT_BAD_NAME, twice + twice + started(PM, 1000));
    check(FAULT_EVENT, {"dp:/res/pm/fm.1", ".", "dp/res/pm/fm", "", "dp:res/pm/fm", "a:b:/res/x", "dp:/res", "x:/resx"},
          RESULT_BAD_NAME,
          dot + "dp:/res/pm/fm.1 | " + dot + ". | " + noColon + "dp/res/pm/fm | " + noColon + NEXT + prefix +
              "dp:res/pm/fm | " + prefix + "a:b:/res/x | " + prefix + "dp:/res | " + prefix + "x:/resx");
    check(FAULT_EVENT, {cutOff, PM}, RESULT_BAD_NAME, prefix + PM + NEXT + started(PM, 1000));
    EXPECT_EQ(NameFault::HAS_NUL, CheckResourceName(cutOff));
    check(
        FAULT_EVENT, {"x:/res/no", "x:/res/:", "x:/res/", ":/res/x"}, RESULT_OPEN_FAILED,
        started(":/res/x", 1000) + NEXT + started("x:/res/", 1001) + NEXT + started("x:/res/:", 1002) + NEXT + absent);
    check(FAULT_EVENT, {"bad", "x:/res/no"}, RESULT_OPEN_FAILED, noColon + "bad | " + absent);
    check(FAULT_EVENT, {}, RESULT_OK, "");
    check(SECURITY_EVENT, {"z.z", SEC, "x:/res/no", "z.z"}, RESULT_OPEN_FAILED,
          started(SEC, 1000) + NEXT + absent + NEXT + started("z.z", 1001));
}

TEST_F(Subscription, AStopEndsWhatItListsAndTheDestructorTheRest)
{
    EXPECT_EQ(RESULT_OK, server_->StopSubscribeEvent({ONE, "unknown"}, FAULT_EVENT));
    EXPECT_EQ("", Journal());
    server_->StartSubscribeEvent({ONE, TWO}, FAULT_EVENT);
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    Await("read(", 3);
    Next("close", {[&] {
             EXPECT_FALSE(server_->faultEvtRunning_);
             EXPECT_TRUE(server_->secEvtRunning_);
         }});
    Journal();
    EXPECT_EQ(RESULT_BAD_NAME, server_->StopSubscribeEvent({"unknown", TWO}, FAULT_EVENT));
    server_.reset();
    EXPECT_EQ("log 3 Illegal fileName=unknown, cannot find resfile in faultEvtSrcMap_ | close(1001) | " +
                  Joined(TWO, "StopSubscribeEvent") + " | log 16 ~ReportEventServerImpl... | close(1000) | " +
                  Joined(ONE, "JoinReadThread") + " | close(1002) | " + Joined(SEC, "JoinReadThread") + " | flush",
              Journal("open close join log fte flush"));
}

TEST_F(Subscription, AThreadThatCannotBeStartedLeavesTheFilesBeforeItSubscribed)
{
    Results("thread", {0, EAGAIN});
    EXPECT_THROW(server_->StartSubscribeEvent({ONE, TWO, "c:/res/three"}, FAULT_EVENT), std::system_error);
    EXPECT_EQ(Opened(ONE, 1000) + " | thread | " + Opened(TWO, 1001) + " | thread | close(1001)",
              Journal("open log thread close"));
    EXPECT_EQ(1u, server_->faultEvtSrcMap_.size());
    EXPECT_EQ(RESULT_BAD_NAME, server_->StopSubscribeEvent({ONE, TWO}, FAULT_EVENT));
}

// Whatever a thread is doing when its subscription ends: it ends, nothing of its file stays open, and what a stop did
// not list is retired by the next start before the family runs again.
TEST_F(Subscription, AThreadIsStoppedWhereverItIs)
{
    struct Place {
        std::string name;
        std::string call;  // in which the thread is held
        Script held;
        Script read;            // before that call
        std::string closed;     // before the join
        std::string meanwhile;  // what the thread writes before it ends
        int number = FIRST_NUMBER;
        int reopened = FIRST_NUMBER;
    };
    const std::string open = "open " + ONE;
    const std::string close = "close(1000) | ";
    const Script record = Success(Raw(0x01, "held"));
    const Script lost = Failure(EPIPE);
    const auto reconnected = [](int number) {
        return Text(" | open(", ONE, ", 0) = ", number, " | ", Reconnected(ONE, number), " | close(", number, ")");
    };
    const std::string notReopened = " | open(" + ONE + ", 0) = -1" + GaveUp(ONE, EPIPE);
    const Place places[] = {
        {"before its first read", "prctl", {}, {}, close, ""},
        {"in a read that succeeds", ONE, record, {}, close, " | device held"},
        {"in a read that fails", ONE, lost, {}, close, ""},
        {"in the callback", "deliver", {}, record, close, " | device held"},
        {"about to close what it lost", "lock", {}, lost, close, GaveUp(ONE, EPIPE)},
        {"reopening in vain", open, {nullptr, -1}, lost, "", notReopened},
        {"reopening under another number", open, {}, lost, "", reconnected(1500), FIRST_NUMBER, 1500},
        {"reopening under number zero again", open, {}, lost, "", reconnected(0), 0, 0},
    };
    struct End {
        Hook begin;
        std::string first;
        std::string joinedBy;
    };
    const Hook stop = [&] { EXPECT_EQ(RESULT_OK, server_->StopSubscribeEvent({ONE}, FAULT_EVENT)); };
    const Hook startAgain = [&] {
        server_->StopSubscribeEvent({}, FAULT_EVENT);
        server_->StartSubscribeEvent({}, FAULT_EVENT);
    };
    const Hook destroy = [&] { server_ = std::make_unique<Server>(); };
    const End ends[] = {{stop, "", "StopSubscribeEvent"},
                        {startAgain, "", "JoinReadThread"},
                        {destroy, "log 16 ~ReportEventServerImpl... | ", "JoinReadThread"}};
    for (const Place& place : places) {
        for (const End& end : ends) {
            SCOPED_TRACE(place.name + ", " + end.joinedBy);
            server_ = std::make_unique<Server>();
            server_->reportEventMidCb = Teller("device ");
            firstNumber = place.number;
            if (place.read.error != 0) {
                Next(place.call, {});  // made by the start
            }
            Hold(place.call, place.held);
            if (place.read.result.has_value()) {
                Next(ONE, place.read);
            }
            server_->StartSubscribeEvent({ONE}, FAULT_EVENT);
            Await("held");
            firstNumber = place.reopened;
            Next("join", {[&] { Record("hold", "released"); }});
            Journal();
            end.begin();
            EXPECT_EQ(end.first + place.closed + Joined(ONE, end.joinedBy, place.meanwhile),
                      Journal("open close read join log deliver"));
            server_->StopSubscribeEvent({}, FAULT_EVENT);
            server_->StartSubscribeEvent({ONE}, FAULT_EVENT);
            EXPECT_EQ(Opened(ONE, place.reopened), Journal("open close join log"));
        }
    }
}

// Giving the old number up and storing the new one take one lock, copying the callback another; nothing else happens
// under them.
TEST_F(Subscription, AThreadMayReconnectBeforeTheStartHasFinishedWithIt)
{
    Next(SEC, Failure(EBADF));
    Next("close", {[&] { firstNumber = 1600; }});
    Next("thread started", {[&] { Await("read(1600)"); }});
    EXPECT_EQ(RESULT_OK, server_->StartSubscribeEvent({SEC}, SECURITY_EVENT));
    Next(SEC, Success(Raw(0x11, "soon")));
    Await("security soon");
    EXPECT_EQ(RESULT_OK, server_->StopSubscribeEvent({SEC}, SECURITY_EVENT));
    const std::string lock = " | lock 1 | unlock";
    EXPECT_EQ(Opened(SEC) + lock + " | thread" + lock + " | close(1000) | open(" + SEC + ", 0) = 1600" + lock + " | " +
                  Reconnected(SEC, 1600) + " | lock 2 | unlock | security soon" + lock + lock +
                  " | close(1600) | join" + lock + " | log 16 StopSubscribeEvent: join thead of resfile=" + SEC +
                  " success" + lock,
              Journal("lock unlock open close log thread join deliver"));
}

}  // namespace recording
