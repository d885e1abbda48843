// The test host's own promises: what it records of the module's events and requests, how waits
// take events, and how JSON commands become message values with the tags the module reads.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "hostlib/JsonMessage.h"
#include "tests/integration/IntegrationSupport.h"

namespace {

RequestMessage& Command(RequestMessage& message, const char* json) {
  std::string error;
  EXPECT_TRUE(CommandFromJsonText(json, message, error)) << error;
  return message;
}

// An event as the module hands it over: ST parked at 255 while the host holds it.
void PostParked(ModuleHost& host, const char* json) {
  RequestMessage message;
  Command(message, json);
  SetCommandValue(message, GetCurrentCommand(message), kKeyST, ST_PARKED, false);
  host.PostEvent(nullptr, &message);
}

TEST(HostRecording, EventsAreDeepCopiesAsSeenDuringPostEvent) {
  ModuleHost host(HostOptions());
  std::string seenInCallback;
  host.SetEventCallback(
      [&](const RequestMessage& m) { seenInCallback = CommandJsonLine("event", CommandOrEmpty(m, 0)); });
  {
    RequestMessage message;
    Command(message, R"({"OC":13120,"CA":0,"DA":"changed"})");
    SetCommandValue(message, GetCurrentCommand(message), kKeyST, ST_PARKED, false);
    host.PostEvent(nullptr, &message);
    // The module restores its status after the call; the record keeps what the host saw.
    SetCommandValue(message, GetCurrentCommand(message), kKeyST, ST_OK, false);
    ReplyString(message, u"overwritten", ST_OK);
  }
  EXPECT_EQ(seenInCallback, R"({"op":"event","OC":13120,"CA":0,"ST":255,"DA":"changed"})");
  const auto events = host.Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].opcode, 13120u);
  EXPECT_EQ(events[0].Value(kKeyST), ST_PARKED);
  EXPECT_EQ(CommandJsonLine("event", CommandOrEmpty(*events[0].message, 0)), seenInCallback);
}

TEST(HostRecording, WaitTakesTheEarliestUntakenEventOfItsOpcode) {
  ModuleHost host(HostOptions());
  PostParked(host, R"({"OC":13121,"DA":"alert"})");
  PostParked(host, R"({"OC":13120,"DA":"first"})");
  PostParked(host, R"({"OC":13120,"DA":"second"})");

  HostMessage taken;
  ASSERT_TRUE(host.WaitForEvent(13120, 0, &taken)) << "an event posted before the wait counts";
  EXPECT_EQ(CommandJsonLine("e", CommandOrEmpty(*taken.message, 0)), R"({"op":"e","OC":13120,"ST":255,"DA":"first"})");
  ASSERT_TRUE(host.WaitForEvent(13120, 0, &taken));
  EXPECT_EQ(CommandJsonLine("e", CommandOrEmpty(*taken.message, 0)), R"({"op":"e","OC":13120,"ST":255,"DA":"second"})");
  EXPECT_FALSE(host.WaitForEvent(13120, 30)) << "each event is taken once";
  // Waiting for one opcode leaves the others for their own waits.
  EXPECT_TRUE(host.WaitForEvent(13121, 0));
  EXPECT_EQ(host.Events().size(), 3u);
}

TEST(HostRecording, WaitWakesForAnEventFromAnotherThreadAndTimesOutInRealTime) {
  ModuleHost host(HostOptions());
  std::thread poster([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    PostParked(host, R"({"OC":13120})");
  });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(host.WaitForEvent(13120, 10000));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  poster.join();

  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(host.WaitForEvent(13120, 100));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST(HostRecording, HostRequestsAreRecordedAndAnsweredWithStatusZero) {
  ModuleHost host(HostOptions());
  uint32_t timeoutSeen = 0;
  host.SetHostRequestCallback([&](const RequestMessage&, uint32_t timeoutMs) { timeoutSeen = timeoutMs; });
  RequestMessage message;
  ConstructRequest(message, 0x0C81, 0, 0, 4, ST_NONE);
  EXPECT_EQ(host.SendRequest(nullptr, &message, 5000), 1);
  EXPECT_EQ(GetCommandValue(message, 0, kKeyST, ST_ABSENT), ST_OK);
  EXPECT_EQ(timeoutSeen, 5000u);
  const auto requests = host.HostRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].opcode, 0x0C81u);
  EXPECT_EQ(requests[0].timeoutMs, 5000u);
  EXPECT_EQ(requests[0].Value(kKeyCA), 4u);
  EXPECT_FALSE(requests[0].Has(kKeyST)) << "recorded as sent, before the host's answer";
}

TEST(JsonCommand, ValuesGetTheTagsTheModuleReads) {
  RequestMessage message;
  Command(message, R"({"OC":13105,"OE":-1,"OI":2147483648,"DA":"text"})");
  const MessageValue& command = CommandOrEmpty(message, 0);
  EXPECT_EQ(MessageTag(*MessageFindMember(command, kKeyOC)), kMessageTagSmallUint);
  EXPECT_EQ(MessageTag(*MessageFindMember(command, kKeyOE)), kMessageTagNegative);
  EXPECT_EQ(MessageTag(*MessageFindMember(command, kKeyOI)), kMessageTagHighUint);
  EXPECT_EQ(MessageTag(*MessageFindMember(command, kKeyDA)) & kMessageTypeMask, kMessageTypeString);
  EXPECT_FALSE(HasCommandKey(message, 0, kKeyCA)) << "a key left out stays absent";
  WString text;
  ASSERT_EQ(GetDataString(message, 0, text, 0), 1);
  EXPECT_EQ(text, u"text");

  Command(message, R"({"OC":1,"DA":{"RAW":[1,2,3,4]}})");
  EXPECT_TRUE(HasRawData(message));
  EXPECT_EQ(GetDataLength(message, 0), 4);
  uint32_t value = 0;
  ASSERT_EQ(GetDataValue(message, 0, value), 1);
  EXPECT_EQ(value, 0x04030201u);

  Command(message, R"({"OC":1,"DA":["ab","c"]})");
  EXPECT_EQ(GetDataType(message, 0), kMessageTypeArray);
  Command(message, R"({"OC":1,"DA":null})");
  EXPECT_TRUE(HasCommandKey(message, 0, kKeyDA));
  EXPECT_EQ(GetDataType(message, 0), kMessageTypeNull);
}

TEST(JsonCommand, RoundTripKeepsKeyOrderAndEveryKindOfData) {
  const char* lines[] = {
      R"({"op":"event","OC":13120,"OE":1,"OI":2,"CA":3,"MI":65537,"ST":255,"DA":{"RAW":[0,255]}})",
      R"({"op":"event","OC":13121,"DA":["a","Grüße"]})",
      R"({"op":"event","OC":1,"DA":[1,-2,18446744073709551615]})",
      R"({"op":"event","OC":1,"ST":0,"DA":null})",
  };
  for (const char* line : lines) {
    RequestMessage message;
    Command(message, line);
    EXPECT_EQ(CommandJsonLine("event", CommandOrEmpty(message, 0)), line);
    // A deep copy prints the same.
    RequestMessage copy;
    CopyCommand(CommandOrEmpty(message, 0), copy);
    EXPECT_EQ(CommandJsonLine("event", CommandOrEmpty(copy, 0)), line);
  }
  // Keys arrive in any order and leave in the host's order.
  RequestMessage message;
  Command(message, R"({"DA":5,"ST":1,"CA":0,"OC":9})");
  EXPECT_EQ(CommandJsonLine("event", CommandOrEmpty(message, 0)), R"({"op":"event","OC":9,"CA":0,"ST":1,"DA":5})");
  EXPECT_EQ(ReplyJsonLine(message, 0), R"({"op":"reply","OC":9,"ret":0,"ST":1,"DA":5})");
  MessageRemoveMember(GetCurrentCommand(message), kKeyST);
  MessageRemoveMember(GetCurrentCommand(message), kKeyDA);
  EXPECT_EQ(ReplyJsonLine(message, std::nullopt), R"({"op":"reply","OC":9,"ST":null})");
}

TEST(JsonCommand, RefusesWhatAMessageCannotCarry) {
  RequestMessage message;
  std::string error;
  for (const char* bad : {R"({"DA":1})", R"([1])", R"({"OC":1,"DA":{"raw":[1]}})", R"({"OC":1,"DA":{"RAW":[256]}})",
                          R"({"OC":1,"DA":{"RAW":[-1]}})", R"({"OC":1,"DA":{"RAW":1}})", R"({"OC":1)"}) {
    error.clear();
    EXPECT_FALSE(CommandFromJsonText(bad, message, error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
}

}  // namespace
