#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "foundation/RequestMessage.h"

namespace {

// A message with one empty command at index 0.
struct Fresh {
  RequestMessage message;
  MessageValue* command;
  Fresh() {
    ResetMessage(message);
    command = &GetCurrentCommand(message);
  }
  // Puts `value` as "DA" of the command.
  void Data(MessageValue value) {
    MessageRemoveMember(*command, kKeyDA);
    MessageAddMember(*command, kKeyDA, value);
  }
  void Data(std::initializer_list<unsigned> raw) {
    MessageValue data(rapidjson::kObjectType), array(rapidjson::kArrayType);
    rapidjson::CrtAllocator heap;
    for (unsigned element : raw) array.PushBack(MessageValue(element), heap);
    MessageAddMember(data, kKeyRAW, array);
    Data(std::move(data));
  }
  void Status(uint32_t status) { SetCommandValue(message, *command, kKeyST, status, false); }
  std::vector<std::u16string> Keys() const { return KeysOf(*command); }

  static std::vector<std::u16string> KeysOf(const MessageValue& object) {
    std::vector<std::u16string> keys;
    for (const auto& member : object.GetObject()) keys.emplace_back(member.name.GetString());
    return keys;
  }
};

MessageValue StringList(std::initializer_list<const char16_t*> texts) {
  MessageValue list(rapidjson::kArrayType);
  rapidjson::CrtAllocator heap;
  for (const char16_t* text : texts) list.PushBack(MessageValue(rapidjson::StringRef(text)), heap);
  return list;
}

TEST(RequestMessage, WrongShapeReadsDefaultsAndRefusesWrites) {
  RequestMessage message;  // root is an empty object: no "SIP"
  EXPECT_EQ(GetCommandValue(message, 0, kKeyST, ST_ABSENT), ST_ABSENT);
  EXPECT_EQ(GetCommandValue(message, 0, kKeyOC, 0), 0u);
  EXPECT_EQ(GetDataLength(message, 0), 0);
  EXPECT_FALSE(HasCommandKey(message, 0, kKeyOC));
  EXPECT_EQ(HasValidData(message, 0, false), 0);

  // Writes land on the shared null value, which must stay null for every later miss.
  MessageValue& command = GetCurrentCommand(message);
  EXPECT_EQ(SetCommandValue(message, command, kKeyST, 5, false), 0);
  InitCommand(message, command, 1, 2, 3, 4, 5);
  ClearData(message, ST_OK);
  ReplyValue(message, 7, ST_OK);
  EXPECT_TRUE(command.IsNull());
  EXPECT_TRUE(MessageLookup(message.document, kKeySIP).IsNull());

  // A negative index or a command that is no object fails the path test.
  ResetMessage(message);
  message.commandIndex = -1;
  EXPECT_TRUE(GetCurrentCommand(message).IsNull());
  message.commandIndex = 0;
  rapidjson::CrtAllocator heap;
  GetCommandArray(message).PushBack(MessageValue(7u), heap);
  EXPECT_FALSE(HasCommandKey(message, 0, kKeyOC));
  EXPECT_EQ(SetCommandValue(message, GetCurrentCommand(message), kKeyOC, 1, false), 0);
}

TEST(RequestMessage, ResetAndConstructBuildTheTree) {
  RequestMessage message;
  message.reserved = 99;
  message.commandIndex = 3;
  ConstructRequest(message, 0x0C81, 0, 7, 0, ST_NONE);
  EXPECT_EQ(message.reserved, 0u);
  EXPECT_EQ(message.commandIndex, 0);

  const MessageValue& sip = MessageLookup(message.document, kKeySIP);
  EXPECT_EQ(message.document.MemberCount(), 1u);
  EXPECT_EQ(MessageTag(MessageLookup(sip, kKeyV)), kMessageTagSmallUint);
  EXPECT_EQ(MessageLookup(sip, kKeyV).GetUint(), 1u);
  ASSERT_EQ(GetCommandArray(message).Size(), 1u);
  // OC and CA always, OE only when not 0, no ST for ST_NONE.
  const MessageValue& command = GetCommandArray(message)[0];
  EXPECT_EQ(Fresh::KeysOf(command), (std::vector<std::u16string>{u"OC", u"OI", u"CA"}));
  EXPECT_EQ(MessageTag(command.MemberBegin()->name), kMessageTagConstString);
  EXPECT_EQ(GetCommandValue(message, 0, kKeyOE, 0), 0u);
  EXPECT_EQ(GetCommandValue(message, 0, kKeyST, ST_ABSENT), ST_ABSENT);

  ConstructRequest(message, 0x3340, 0, 0, 0, ST_OK);
  EXPECT_EQ(GetCommandValue(message, 0, kKeyST, ST_ABSENT), ST_OK);
  EXPECT_TRUE(HasCommandKey(message, 0, kKeyCA));

  // The current command is created on demand, with empty commands before it.
  message.commandIndex = 2;
  SetCommandValue(message, GetCurrentCommand(message), kKeyOC, 5, false);
  ASSERT_EQ(GetCommandArray(message).Size(), 3u);
  EXPECT_TRUE(GetCommandArray(message)[1].ObjectEmpty());
  EXPECT_EQ(GetCommandValue(message, 2, kKeyOC, 0), 5u);
}

TEST(RequestMessage, TagsFollowTheValue) {
  rapidjson::CrtAllocator heap;
  EXPECT_EQ(MessageTag(MessageValue(5u)), kMessageTagSmallUint);
  EXPECT_EQ(MessageTag(MessageValue(0x80000000u)), kMessageTagHighUint);
  EXPECT_EQ(MessageTag(MessageValue(-3)), kMessageTagNegative);
  EXPECT_EQ(MessageTag(MessageValue(uint64_t{1} << 32)), 0x3206u);
  EXPECT_EQ(MessageTag(MessageValue(true)), 0x102u);
  EXPECT_EQ(MessageTag(MessageValue(rapidjson::StringRef(u"constant text that is long"))), kMessageTagConstString);
  // Short copies live inside the value, long ones on the heap; both are owned.
  EXPECT_EQ(MessageTag(MessageValue(u"ab", 2, heap)), kMessageTagOwnedString);
  EXPECT_EQ(MessageTag(MessageValue(u"a text too long to sit inline", 29, heap)), kMessageTagOwnedString);

  MessageValue object(rapidjson::kObjectType), value(5u);
  MessageAddMember(object, kKeyOC, value);
  EXPECT_EQ(MessageTag(value), kMessageTypeNull);  // moved from
  EXPECT_EQ(MessageTag(object), kMessageTypeObject);
}

TEST(RequestMessage, CommandValuesAndMemberOrder) {
  Fresh f;
  InitCommand(f.message, *f.command, 0x3300, 1, 2, 3, ST_OK);
  EXPECT_EQ(f.Keys(), (std::vector<std::u16string>{u"OC", u"OE", u"OI", u"CA", u"ST"}));

  // Overwriting keeps the position; zero with removal removes, without it stays.
  SetCommandValue(f.message, *f.command, kKeyOE, 0xFFFFFFFF, true);
  EXPECT_EQ(f.Keys()[1], u"OE");
  EXPECT_EQ(GetCommandValue(f.message, 0, kKeyOE, 0), 0xFFFFFFFFu);
  SetCommandValue(f.message, *f.command, kKeyCA, 0, false);
  EXPECT_TRUE(HasCommandKey(f.message, 0, kKeyCA));
  EXPECT_EQ(GetCommandValue(f.message, 0, kKeyCA, 9), 0u);

  // Removing from the middle moves the last member into the gap.
  SetCommandValue(f.message, *f.command, kKeyOE, 0, true);
  EXPECT_EQ(f.Keys(), (std::vector<std::u16string>{u"OC", u"ST", u"OI", u"CA"}));
  EXPECT_EQ(GetCommandValue(f.message, 0, kKeyOI, 0), 2u);
  EXPECT_TRUE(MessageRemoveMember(*f.command, kKeyCA));  // the last one
  EXPECT_FALSE(MessageRemoveMember(*f.command, kKeyCA));
  EXPECT_EQ(f.Keys(), (std::vector<std::u16string>{u"OC", u"ST", u"OI"}));

  // Absent keys read as the default; a negative number reads as its two's complement.
  EXPECT_EQ(GetCommandValue(f.message, 0, kKeyMI, 0), 0u);
  MessageValue negative(-2);
  MessageAddMember(*f.command, kKeyMI, negative);
  EXPECT_EQ(GetCommandValue(f.message, 0, kKeyMI, 0), 0xFFFFFFFEu);
  // Keys compare by length and characters: "O" and "OCX" are not "OC".
  EXPECT_EQ(MessageFindMember(*f.command, u"O"), nullptr);
  EXPECT_EQ(MessageFindMember(*f.command, u"OCX"), nullptr);
}

TEST(RequestMessage, DataLengthByTag) {
  Fresh f;
  auto length = [&](MessageValue value) {
    f.Data(std::move(value));
    return GetDataLength(f.message, 0);
  };
  rapidjson::CrtAllocator heap;
  EXPECT_EQ(GetDataLength(f.message, 0), 0);  // no "DA"
  EXPECT_EQ(length(MessageValue(u"ab", 2, heap)), 3);
  EXPECT_EQ(length(MessageValue(255u)), 1);
  EXPECT_EQ(length(MessageValue(256u)), 2);
  EXPECT_EQ(length(MessageValue(65536u)), 4);
  EXPECT_EQ(length(MessageValue(0xFFFFFFFFu)), 4);
  EXPECT_EQ(length(MessageValue(uint64_t{1} << 32)), 8);
  EXPECT_EQ(length(MessageValue(-1)), 0);
  EXPECT_EQ(length(MessageValue(false)), 1);
  EXPECT_EQ(length(StringList({u"ab", u"c"})), 12);
  EXPECT_EQ(length(MessageValue(rapidjson::kArrayType)), 0);
  EXPECT_EQ(length(MessageValue(rapidjson::kObjectType)), 0);

  MessageValue numbers(rapidjson::kArrayType);
  for (unsigned n : {1u, 300u, 70000u}) numbers.PushBack(MessageValue(n), heap);
  EXPECT_EQ(length(std::move(numbers)), 7);

  f.Data({1, 2, 3});
  EXPECT_EQ(GetDataLength(f.message, 0), 3);
  EXPECT_EQ(GetDataType(f.message, 0), kMessageTypeObject);
  SetDataBytes(f.message, *f.command, nullptr, 0);
  EXPECT_TRUE(HasRawData(f.message));
  EXPECT_EQ(GetDataLength(f.message, 0), 0);
}

TEST(RequestMessage, DataValueFromNumbersAndRawStreams) {
  Fresh f;
  auto value = [&]() -> int64_t {
    uint32_t out = 0xDEAD;
    return GetDataValue(f.message, 0, out) ? int64_t{out} : -1;
  };
  EXPECT_EQ(value(), -1);
  f.Data({0x1234});
  EXPECT_EQ(value(), 0x1234);
  f.Data({1, 2});
  EXPECT_EQ(value(), 0x0201);
  f.Data({1, 2, 3});
  EXPECT_EQ(value(), 0x030201);
  f.Data({1, 2, 3, 4, 5});
  EXPECT_EQ(value(), 0x04030201);
  f.Data({});
  EXPECT_EQ(value(), -1);

  f.Data(MessageValue(0x80000001u));
  EXPECT_EQ(value(), 0x80000001);
  f.Data(MessageValue(-1));
  EXPECT_EQ(value(), -1);
  f.Data(MessageValue(rapidjson::StringRef(u"7")));
  EXPECT_EQ(value(), -1);
  f.Data(StringList({u"7"}));
  EXPECT_EQ(value(), -1);
}

TEST(RequestMessage, DataAsTextAndBytes) {
  Fresh f;
  WString text = u"untouched";
  std::vector<uint8_t> bytes{9};
  EXPECT_EQ(GetDataString(f.message, 0, text, 0), 0);  // no "DA"
  EXPECT_EQ(GetDataStream(f.message, 0, bytes), 0);

  f.Data(MessageValue());
  EXPECT_EQ(GetDataString(f.message, 0, text, 0), 1);
  EXPECT_TRUE(text.empty());

  SetDataString(f.message, *f.command, u"ab\u00e4");
  EXPECT_EQ(GetDataString(f.message, 0, text, 1), 0);
  EXPECT_EQ(GetDataString(f.message, 0, text, 0), 1);
  EXPECT_EQ(text, u"ab\u00e4");
  EXPECT_EQ(GetDataStream(f.message, 0, bytes), 1);
  EXPECT_EQ(bytes, (std::vector<uint8_t>{'a', 'b', 0xC3, 0xA4, 0}));

  f.Data({0x61, 0x62, 0xC3, 0xA4});
  EXPECT_EQ(GetDataString(f.message, 0, text, 1), 1);
  EXPECT_EQ(text, u"b\u00e4");
  EXPECT_EQ(GetDataString(f.message, 0, text, 4), 0);
  EXPECT_EQ(GetDataStream(f.message, 0, bytes), 1);
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0x61, 0x62, 0xC3, 0xA4}));

  f.Data(StringList({u"ab", u"c"}));
  EXPECT_EQ(GetDataStream(f.message, 0, bytes), 1);
  EXPECT_EQ(bytes, (std::vector<uint8_t>{'a', 'b', 0, 'c', 0, 0}));

  f.Data(MessageValue(0x1234u));
  EXPECT_EQ(GetDataStream(f.message, 0, bytes), 1);
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0x34, 0x12}));
  f.Data(MessageValue(uint64_t{0x0102030405}));
  EXPECT_EQ(GetDataStream(f.message, 0, bytes), 1);
  EXPECT_EQ(bytes, (std::vector<uint8_t>{5, 4, 3, 2, 1, 0, 0, 0}));
  f.Data(MessageValue(-1));
  EXPECT_EQ(GetDataStream(f.message, 0, bytes), 0);

  // An object without "RAW" is an empty stream, not a failure.
  f.Data(MessageValue(rapidjson::kObjectType));
  EXPECT_EQ(GetDataStream(f.message, 0, bytes), 1);
  EXPECT_TRUE(bytes.empty());
}

TEST(RequestMessage, ValidDataNeedsAcceptedStatusAndLength) {
  Fresh f;
  f.Data({1, 2, 3, 4});
  EXPECT_EQ(HasValidData(f.message, 4, false), 0);  // ST absent reads 22
  f.Status(ST_NOT_AVAILABLE);
  EXPECT_EQ(HasValidData(f.message, 4, false), 0);
  for (uint32_t status : {0u, 12u, 21u, 255u}) {
    f.Status(status);
    EXPECT_EQ(HasValidData(f.message, 4, false), 1) << status;
  }
  EXPECT_EQ(HasValidData(f.message, 3, false), 0);
  EXPECT_EQ(HasValidData(f.message, 3, true), 1);
  EXPECT_EQ(HasValidData(f.message, 5, true), 0);
  EXPECT_EQ(HasValidData(f.message, 0, false), 1);
  f.Data(MessageValue(1u));  // a number passes whatever length is wanted
  EXPECT_EQ(HasValidData(f.message, 100, false), 1);
  MessageRemoveMember(*f.command, kKeyDA);
  EXPECT_EQ(HasValidData(f.message, 0, false), 0);
}

TEST(RequestMessage, ReplyWritersReleaseWhatTheyReplace) {
  Fresh f;
  InitCommand(f.message, *f.command, 0x3301, 0, 0);
  // Each overwrite of an owned string must free it; the sanitizer build reports a leak otherwise.
  const WString longText(100, u'x');
  ReplyString(f.message, longText, ST_OK);
  EXPECT_EQ(MessageTag(MessageLookup(*f.command, kKeyDA)), kMessageTagOwnedString);
  EXPECT_EQ(f.Keys(), (std::vector<std::u16string>{u"OC", u"DA", u"ST"}));
  ReplyString(f.message, longText + u"y", ST_OK);
  // Replacing the data with a text taken from that very data.
  const MessageValue& current = MessageLookup(*f.command, kKeyDA);
  SetDataString(f.message, *f.command, WStringView(current.GetString() + 50, 51));
  EXPECT_EQ(MessageLookup(*f.command, kKeyDA).GetStringLength(), 51u);
  ReplyValue(f.message, 0x80000000u, ST_FAILED);
  EXPECT_EQ(MessageTag(MessageLookup(*f.command, kKeyDA)), kMessageTagHighUint);
  ReplyString(f.message, static_cast<const char16_t*>(nullptr), ST_OK);
  EXPECT_EQ(MessageLookup(*f.command, kKeyDA).GetStringLength(), 0u);
  ReplyByte(f.message, 0xAB, ST_DENIED);
  EXPECT_EQ(GetCommandValue(f.message, 0, kKeyDA, 0), 0xABu);
  EXPECT_EQ(GetCommandValue(f.message, 0, kKeyST, ST_ABSENT), ST_DENIED);

  ReplyBytes(f.message, {1, 2}, ST_OK);
  EXPECT_EQ(GetDataLength(f.message, 0), 2);
  ReplyBytes(f.message, {}, ST_ILLEGAL);
  EXPECT_FALSE(HasCommandKey(f.message, 0, kKeyDA));
  EXPECT_EQ(GetCommandValue(f.message, 0, kKeyST, ST_ABSENT), ST_ILLEGAL);

  EventBytes(f.message, {7});
  EXPECT_TRUE(HasRawData(f.message));
  EXPECT_FALSE(HasCommandKey(f.message, 0, kKeyST));

  SetDataString(f.message, *f.command, longText);
  ClearData(f.message, ST_NOT_AVAILABLE);
  EXPECT_FALSE(HasCommandKey(f.message, 0, kKeyDA));
  EXPECT_EQ(GetCommandValue(f.message, 0, kKeyST, ST_ABSENT), ST_NOT_AVAILABLE);
  ResetMessage(f.message);  // releases the whole tree
}

TEST(RequestMessage, StorageDoublesFrom16) {
  std::vector<std::u16string> keys;  // the message references its keys: they must outlive it
  for (char16_t n = 0; n < 33; ++n) keys.push_back(u"k" + std::u16string(1, static_cast<char16_t>(u'A' + n)));
  Fresh f;
  EXPECT_EQ(MessageCapacity(*f.command), 0u);
  std::vector<uint32_t> capacities;
  for (const auto& key : keys) {
    SetCommandValue(f.message, *f.command, key.c_str(), key[1], false);
    capacities.push_back(MessageCapacity(*f.command));
  }
  EXPECT_EQ(capacities[0], 16u);
  EXPECT_EQ(capacities[15], 16u);
  EXPECT_EQ(capacities[16], 32u);
  EXPECT_EQ(capacities[31], 32u);
  EXPECT_EQ(capacities[32], 64u);
  EXPECT_EQ(GetCommandValue(f.message, 0, u"kA", 0), u'A');  // members survive the moves
  EXPECT_EQ(GetCommandValue(f.message, 0, keys[32].c_str(), 0), keys[32][1]);

  const std::vector<uint8_t> bytes(33, 0x41);
  SetDataBytes(f.message, *f.command, bytes.data(), 17);
  EXPECT_EQ(MessageCapacity(MessageLookup(MessageLookup(*f.command, kKeyDA), kKeyRAW)), 32u);
  SetDataBytes(f.message, *f.command, bytes.data(), bytes.size());
  EXPECT_EQ(MessageCapacity(MessageLookup(MessageLookup(*f.command, kKeyDA), kKeyRAW)), 64u);

  f.message.commandIndex = 16;
  GetCurrentCommand(f.message);
  EXPECT_EQ(MessageCapacity(GetCommandArray(f.message)), 32u);
}

}  // namespace
